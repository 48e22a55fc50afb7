// A file of one header and units of equal size (records, index entries, level entries), written through a
// buffer of 64 KiB. A unit counts as written when the whole of it is in the file, and the file never grows
// by anything but whole units, whatever the disk does.
//
// Threads: one at a time. Lifetime: owns the file; the destructor closes it and drops what is buffered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>

#include "core/result.h"
#include "storage/format/recording_format.h"
#include "storage/write/claimed_file.h"

namespace lm::storage {

class AppendFile {
  public:
    /// Creates or truncates the file, locked, and writes the header at once. `unitSize` is at least 1.
    /// Errors: those of ClaimedFile::create().
    static Result<AppendFile> create(const std::filesystem::path& path, const FileHeader& header,
                                     std::uint64_t unitSize, ClaimedFile::Begin begin);

    /// Room for the next unit, to be filled and then taken by commit(); nullptr when the buffer is full.
    std::uint8_t* reserve();
    void commit() { ++buffered_; }

    /// The units in the buffer, the oldest first; valid until release().
    std::span<const std::uint8_t> buffered() const;
    std::size_t bufferedUnits() const { return buffered_; }

    /// What writeOut() got into the file.
    struct Progress {
        std::size_t units = 0;  ///< whole units; they stay buffered until release(units)
        int systemError = 0;    ///< why not all of them, 0 when all
    };
    /// Writes the buffered units. Those that did not get into the file are tried again by the next call.
    Progress writeOut();
    void release(std::size_t units);

    /// To flush it to the disk, and to close it.
    ClaimedFile& file() { return file_; }
    const ClaimedFile& file() const { return file_; }

  private:
    AppendFile(ClaimedFile file, std::uint64_t unitSize);

    ClaimedFile file_;
    std::uint64_t unitSize_;
    std::size_t capacity_;      ///< units
    std::size_t buffered_ = 0;  ///< units
    std::unique_ptr<std::uint8_t[]> buffer_;
};

}  // namespace lm::storage
