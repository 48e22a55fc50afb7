// A file of a recording while it is written: claimed under a lock, appended to in whole units. Nothing is
// written through a link, to where no one asked for it, nor into a pipe or a device, which wait for, or do,
// who knows what.
//
// Threads: one at a time. Lifetime: owns the file; the destructor closes it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <utility>

#include "core/file_write.h"
#include "core/result.h"
#include "core/unique_fd.h"

namespace lm::storage {

class ClaimedFile {
  public:
    /// What is certain of the first bytes when create() returns.
    enum class Begin { written, onDisk };
    /// Makes the file under its name or empties the one that is there, locked, and writes `size` bytes.
    /// Errors: recordedByAnother() while another program writes it, "cannot create PATH: REASON" (also for
    /// what is no regular file), "cannot write PATH: REASON"; a file that this call made is gone then.
    static Result<ClaimedFile> create(const std::filesystem::path& path, const void* data, std::uint64_t size,
                                      Begin begin);

    /// How many of so many bytes make whole units.
    using WholeOf = std::function<std::uint64_t(std::uint64_t bytes)>;
    /// Appends what the disk takes, as far as it is whole; the result counts these bytes.
    Written append(const void* data, std::uint64_t size, const WholeOf& wholeOf);

    /// Both return 0 or an errno.
    int flushToDisk();
    int close() { return descriptor_.close(); }

    /// True when this object made the file, which decides who may remove it.
    bool isNew() const { return isNew_; }
    bool isOpen() const { return descriptor_.valid(); }
    const std::filesystem::path& path() const { return path_; }
    int descriptor() const { return descriptor_.get(); }
    /// "cannot write PATH: REASON".
    Error writeError(int systemError) const;

  private:
    ClaimedFile(std::filesystem::path path, UniqueFd descriptor, bool isNew)
        : path_(std::move(path)), descriptor_(std::move(descriptor)), isNew_(isNew) {}

    static Result<ClaimedFile> claim(const std::filesystem::path& path);
    static Result<ClaimedFile> claimed(ClaimedFile opened);

    std::filesystem::path path_;
    UniqueFd descriptor_;
    bool isNew_;
    std::uint64_t end_ = 0;  ///< after the last whole unit
};

}  // namespace lm::storage
