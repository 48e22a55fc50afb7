// A file that appears under its name only when it is whole: written beside it under a temporary name, renamed
// at the end, removed when anything goes wrong before.
//
// Threads: one at a time. Lifetime: owns the file; the destructor removes what was not committed. Like a
// copy made by `cp`, a committed file reaches the disk when the system sees fit.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string_view>
#include <utility>

#include "core/durable_file.h"
#include "core/result.h"

namespace lm::exporter {

/// Errors: alreadyOpen "PATH already exists (--force overwrites it)" unless `replace`; invalidArgument "PATH
/// is not a regular file" for a device, a pipe or a directory, which is never replaced.
Result<void> checkTarget(const std::filesystem::path& target, bool replace);

class OutputFile {
  public:
    /// Errors: those of checkTarget(); "cannot create PATH: REASON".
    static Result<OutputFile> create(const std::filesystem::path& target, bool replace);

    /// Bytes so far: where the next append() goes.
    std::uint64_t size() const { return size_; }
    /// The next append() goes to `offset`, which is not below size(); zeros lie between.
    void skipTo(std::uint64_t offset) { size_ = offset; }

    /// Errors of all writes: "cannot write PATH: REASON".
    Result<void> append(std::span<const std::uint8_t> bytes);
    Result<void> append(std::string_view text);
    Result<void> writeAt(std::uint64_t offset, std::span<const std::uint8_t> bytes);

    /// Closes the file and gives it its name. Errors: as of a write and of create().
    Result<void> commit();

    const std::filesystem::path& path() const { return target_; }

  private:
    OutputFile(std::filesystem::path target, bool replace) : target_(std::move(target)), replace_(replace) {}

    Error writeError(int systemError) const;
    void keepMode() const;

    std::filesystem::path target_;
    StagedFile file_;
    bool replace_ = false;
    std::uint64_t size_ = 0;
};

}  // namespace lm::exporter
