// A file that is read at given places. What the file gains or loses after it was opened is an error value or
// simply not seen, never a crash: files of a recording are read while another program writes them.
//
// Threads: readAt() from any; the rest one at a time. Lifetime: owns its descriptor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <utility>

#include "core/result.h"
#include "core/unique_fd.h"

namespace lm::storage {

class InputFile {
  public:
    /// Errors: "cannot open PATH: REASON" (notFound when there is no such file), also for what is no regular
    /// file: opening a pipe or a device would wait for, or do, who knows what.
    static Result<InputFile> open(const std::filesystem::path& path);

    /// Reads exactly `size` bytes. Errors: "cannot read PATH: REASON", "PATH: shorter than when it was
    /// opened".
    Result<void> readAt(std::uint64_t offset, std::uint8_t* into, std::size_t size) const;

    /// Takes up the size that the file has now. Errors: "cannot open PATH: REASON".
    Result<void> refresh();

    /// Bytes when it was opened, or at the last refresh().
    std::uint64_t size() const { return size_; }
    const std::filesystem::path& path() const { return path_; }
    /// For system calls that copy between files; stays this object's.
    int descriptor() const { return descriptor_.get(); }

  private:
    InputFile(std::filesystem::path path, UniqueFd descriptor)
        : path_(std::move(path)), descriptor_(std::move(descriptor)) {}

    std::filesystem::path path_;
    UniqueFd descriptor_;
    std::uint64_t size_ = 0;
};

}  // namespace lm::storage
