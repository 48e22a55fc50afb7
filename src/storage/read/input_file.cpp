#include "storage/read/input_file.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace lm::storage {

Result<InputFile> InputFile::open(const std::filesystem::path& path) {
    const auto failed = [&path](int systemError) {
        return Error::fromErrno(systemError, "cannot open " + path.string());
    };
    UniqueFd opened;
    do {
        // A pipe without a writer would block; regular files do not mind the flag.
        opened = UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    } while (!opened.valid() && errno == EINTR);
    if (!opened.valid()) return failed(errno);
    struct stat status {};
    if (::fstat(opened.get(), &status) != 0) return failed(errno);
    if (!S_ISREG(status.st_mode)) {
        return Error{ErrorCode::invalidArgument, "cannot open " + path.string() + ": not a regular file"};
    }
    return InputFile(path, std::move(opened), static_cast<std::uint64_t>(status.st_size));
}

InputFile::InputFile(std::filesystem::path path, UniqueFd descriptor, std::uint64_t size)
    : path_(std::move(path)), descriptor_(std::move(descriptor)), size_(size) {}

Result<void> InputFile::readAt(std::uint64_t offset, std::uint8_t* into, std::size_t size) const {
    while (size > 0) {
        const ssize_t count = ::pread(descriptor(), into, size, static_cast<off_t>(offset));
        if (count == 0) {
            return Error{ErrorCode::ioError, path_.string() + ": shorter than when it was opened"};
        }
        if (count < 0 && errno != EINTR) return Error::fromErrno(errno, "cannot read " + path_.string());
        if (count < 0) continue;
        into += count;
        offset += static_cast<std::uint64_t>(count);
        size -= static_cast<std::size_t>(count);
    }
    return {};
}

}  // namespace lm::storage
