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

namespace lm::storage {

class AppendFile {
  public:
    /// Creates or truncates the file, locked, and writes the header at once. `unitSize` is at least 1.
    /// Errors: recordedByAnother() while another program writes it, "cannot create PATH: REASON" (also for
    /// what is no regular file), "cannot write PATH: REASON"; a file that this call made is gone.
    static Result<AppendFile> create(const std::filesystem::path& path, const FileHeader& header,
                                     std::uint64_t unitSize);

    AppendFile(AppendFile&& other) noexcept;
    AppendFile& operator=(AppendFile&& other) noexcept;
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;
    ~AppendFile();

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

    /// Flushes what was written to the disk. Error: "cannot write PATH: REASON".
    Result<void> flushToDisk();

    /// Closes the file. Errors: "cannot write PATH: REASON" when the system reports a late failure.
    Result<void> close();

    /// True when this object made the file, false when it overwrote one.
    bool isNew() const { return isNew_; }
    const std::filesystem::path& path() const { return path_; }
    int descriptor() const { return descriptor_; }

  private:
    AppendFile(std::filesystem::path path, int descriptor, bool isNew, std::uint64_t unitSize);

    std::filesystem::path path_;
    int descriptor_ = -1;
    bool isNew_ = false;
    std::uint64_t unitSize_ = 0;
    std::size_t capacity_ = 0;  ///< units
    std::size_t buffered_ = 0;  ///< units
    std::uint64_t fileEnd_ = kHeaderSize;
    std::unique_ptr<std::uint8_t[]> buffer_;
};

}  // namespace lm::storage
