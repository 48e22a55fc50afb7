// Writes "events.jsonl": a line for each event, in the file at once. A line that the disk does not take waits
// for a later try, and the file never holds a part of one before another.
//
// Threads: the file thread; create() on the owner's while that one does not run. Lifetime: owns the file;
// borrows the faults, which outlive it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "core/result.h"
#include "storage/format/recording_faults.h"
#include "storage/format/recording_info.h"
#include "storage/write/claimed_file.h"

namespace lm::storage {

class EventFile {
  public:
    /// Makes the file with its first line, both on the disk. Errors: those of ClaimedFile::create().
    static Result<EventFile> create(const RecordingInfo& info, RecordingFaults& faults);

    /// `line` ends with its line feed. What waits beyond 64 KiB is dropped and told at the end.
    void append(std::string_view line);
    /// Tries again what waits. True when something new is in the file.
    bool flush();
    /// Flushes, also to the disk, and closes. Lines that still did not get into the file are told.
    void close();

    const ClaimedFile& file() const { return file_; }

  private:
    EventFile(ClaimedFile file, RecordingFaults& faults) : file_(std::move(file)), faults_(&faults) {}

    ClaimedFile file_;
    RecordingFaults* faults_;
    std::string waiting_;  ///< whole lines
    std::uint64_t dropped_ = 0;
};

}  // namespace lm::storage
