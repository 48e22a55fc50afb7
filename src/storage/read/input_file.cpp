#include "storage/read/input_file.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace lm::storage {

Result<InputFile> InputFile::open(const std::filesystem::path& path) {
    UniqueFd opened;
    do {
        // A pipe without a writer would block; regular files do not mind the flag.
        opened = UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    } while (!opened.valid() && errno == EINTR);
    if (!opened.valid()) return Error::fromErrno(errno, "cannot open " + path.string());
    InputFile file(path, std::move(opened));
    if (auto looked = file.refresh(); !looked) return looked.error();
    return file;
}

Result<void> InputFile::refresh() {
    const std::string context = "cannot open " + path_.string();
    struct stat status {};
    if (::fstat(descriptor(), &status) != 0) return Error::fromErrno(errno, context);
    if (!S_ISREG(status.st_mode)) {
        return Error{ErrorCode::invalidArgument, context + ": not a regular file"};
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
    return {};
}

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
