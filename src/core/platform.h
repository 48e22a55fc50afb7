// Process-level services of Linux: own path, directories of the user, mapped files, the open-file limit, the
// local time.
//
// Threads: the functions may be called from any thread; a MappedFile belongs to one thread at a time.
// Lifetime: the bytes of a MappedFile are gone with the object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "core/result.h"

namespace lm {

/// The path of the running program (the target of /proc/self/exe), empty when it cannot be read.
std::filesystem::path executablePath();

/// $XDG_CONFIG_HOME, else $HOME/.config, else an empty path; an empty variable counts as unset.
std::filesystem::path userConfigDirectory();
/// $XDG_STATE_HOME, else $HOME/.local/state, else an empty path; likewise.
std::filesystem::path userStateDirectory();

/// Raises the soft limit of open files to the hard limit, once per process; a refusal is ignored.
void raiseOpenFileLimit();

/// Minutes from UTC to this host's local time at `utcNs` (nanoseconds since 1970), daylight saving included.
int utcOffsetMinutes(std::int64_t utcNs);

/// A read-only view of a whole file that no one cuts short meanwhile: touching what is gone ends the process.
class MappedFile {
  public:
    /// Errors: notFound (ENOENT) or ioError with "cannot open PATH", ioError with "cannot map PATH"; both
    /// carry the errno. A file of size 0 gives an empty view.
    static Result<MappedFile> open(const std::filesystem::path& path);

    MappedFile(MappedFile&& other) noexcept;
    MappedFile& operator=(MappedFile&& other) noexcept;
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile();

    const char* data() const { return data_; }
    std::size_t size() const { return size_; }
    std::string_view text() const { return {data_, size_}; }

  private:
    MappedFile(const char* data, std::size_t size) : data_(data), size_(size) {}

    const char* data_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace lm
