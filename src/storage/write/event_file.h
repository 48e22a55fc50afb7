// Writes "events.jsonl": a line for each event, in the file at once. A line that the disk does not take waits
// for a later try, and the file never holds a part of one before another.
//
// Threads: the file thread; create() on the owner's while that one does not run. Lifetime: owns the file;
// borrows the faults, which outlive it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "core/result.h"
#include "storage/format/recording_faults.h"
#include "storage/format/recording_info.h"

namespace lm::storage {

class EventFile {
  public:
    /// Makes the file with its first line, both on the disk. Errors: those of claimForWriting(); "cannot
    /// write PATH: REASON". A file that this call made is gone then.
    static Result<EventFile> create(const RecordingInfo& info, RecordingFaults& faults);

    EventFile(EventFile&& other) noexcept;
    EventFile& operator=(EventFile&&) = delete;
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;
    ~EventFile();

    /// `line` ends with its line feed. What waits beyond 64 KiB is dropped and told at the end.
    void append(std::string_view line);
    /// Tries again what waits. True when something new is in the file.
    bool flush();
    /// Flushes, also to the disk, and closes. Lines that still did not get into the file are told.
    void close();

    int descriptor() const { return descriptor_; }
    bool isNew() const { return isNew_; }
    const std::filesystem::path& path() const { return path_; }

  private:
    EventFile(std::filesystem::path path, int descriptor, bool isNew, RecordingFaults& faults);

    std::filesystem::path path_;
    int descriptor_ = -1;
    bool isNew_ = false;
    RecordingFaults* faults_;
    std::uint64_t end_ = 0;  ///< behind the last whole line in the file
    std::string waiting_;    ///< whole lines
    std::uint64_t dropped_ = 0;
};

}  // namespace lm::storage
