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
    int descriptor = -1;
    do {
        // A pipe without a writer would block; regular files do not mind the flag.
        descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) return failed(errno);
    InputFile file(path, descriptor, 0);
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return failed(errno);
    if (!S_ISREG(status.st_mode)) {
        return Error{ErrorCode::invalidArgument, "cannot open " + path.string() + ": not a regular file"};
    }
    file.size_ = static_cast<std::uint64_t>(status.st_size);
    return file;
}

InputFile::InputFile(std::filesystem::path path, int descriptor, std::uint64_t size)
    : path_(std::move(path)), descriptor_(descriptor), size_(size) {}

InputFile::InputFile(InputFile&& other) noexcept
    : path_(std::move(other.path_)), descriptor_(std::exchange(other.descriptor_, -1)), size_(other.size_) {}

InputFile& InputFile::operator=(InputFile&& other) noexcept {
    std::swap(path_, other.path_);
    std::swap(descriptor_, other.descriptor_);
    std::swap(size_, other.size_);
    return *this;
}

InputFile::~InputFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

Result<void> InputFile::readAt(std::uint64_t offset, std::uint8_t* into, std::size_t size) const {
    while (size > 0) {
        const ssize_t count = ::pread(descriptor_, into, size, static_cast<off_t>(offset));
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
