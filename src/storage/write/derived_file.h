// A file of entries that can be computed again from the records: the time index or a level. When the disk
// takes no more and the buffer is full, the file is given up for good: it stays right as far as it goes.
//
// Threads: one at a time. Lifetime: borrows the faults, which outlive it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

#include "core/result.h"
#include "storage/format/recording_faults.h"
#include "storage/format/recording_format.h"
#include "storage/write/append_file.h"

namespace lm::storage {

class DerivedFile {
  public:
    /// Errors: those of ClaimedFile::create().
    static Result<DerivedFile> create(const std::filesystem::path& path, const FileHeader& header,
                                      std::uint64_t entrySize, RecordingFaults& faults);

    /// `entry` holds entrySize bytes.
    void append(std::span<const std::uint8_t> entry);
    void flush();
    /// Flushes and closes.
    void close();

    const ClaimedFile& file() const { return file_.file(); }

  private:
    DerivedFile(AppendFile file, RecordingFaults& faults);

    AppendFile file_;
    RecordingFaults* faults_;
    bool stalled_ = false;  ///< the last flush failed; only the next timed flush tries again
    bool givenUp_ = false;
};

}  // namespace lm::storage
