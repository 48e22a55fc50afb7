// Reads a file of entries of equal size behind a header: a time index or a level of the pyramid.
//
// Threads: one at a time. Lifetime: owns its file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "core/result.h"
#include "storage/format/summary_file.h"
#include "storage/read/input_file.h"

namespace lm::storage {

class EntryReader {
  public:
    /// Opens summary file `number` of a group. Errors: those of InputFile::open(); invalidArgument "PATH:
    /// shorter than its header", "PATH: header does not fit (byte B)".
    static Result<EntryReader> open(const std::filesystem::path& directory, std::size_t groupNumber,
                                    const GroupInfo& group, std::size_t number);

    /// Takes up the entries that the file has now. Errors: those of InputFile::refresh().
    Result<void> refresh() { return file_.refresh(); }

    /// Whole entries in the file when it was opened, or at the last refresh().
    std::uint64_t count() const;
    std::size_t entrySize() const { return entrySize_; }
    const InputFile& file() const { return file_; }
    /// Bytes behind the last whole entry.
    std::uint64_t tornBytes() const;
    std::uint64_t offsetOf(std::uint64_t entry) const { return kHeaderSize + entry * entrySize_; }

    /// Entries from `first` on, as many as a buffer of 64 KiB takes (one at least) and `most` allows; they
    /// exist. Valid until the next call. Errors: those of InputFile::readAt().
    Result<std::span<const std::uint8_t>> read(std::uint64_t first, std::uint64_t most);

  private:
    EntryReader(InputFile file, std::size_t entrySize);

    InputFile file_;
    std::size_t entrySize_;
    std::vector<std::uint8_t> buffer_;
};

}  // namespace lm::storage
