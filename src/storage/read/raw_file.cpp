#include "storage/read/raw_file.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "core/file_lock.h"
#include "storage/format/recording_meta.h"

namespace lm::storage {
namespace {

/// Closes the file when another program is writing it, or has just removed it.
Result<ClaimedFile> claimed(ClaimedFile opened, const std::filesystem::path& path) {
    if (lockForWriting(opened.descriptor) && standsAt(opened.descriptor, path)) return opened;
    ::close(opened.descriptor);
    return recordedByAnother(path.parent_path());
}

}  // namespace

Result<ClaimedFile> claimForWriting(const std::filesystem::path& path) {
    constexpr int kFlags = O_WRONLY | O_CLOEXEC;
    const std::string context = "cannot create " + path.string();
    const int made = ::open(path.c_str(), kFlags | O_CREAT | O_EXCL, 0666);
    if (made >= 0) return claimed({made, true}, path);
    if (errno != EEXIST) return Error::fromErrno(errno, context);
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        return Error{ErrorCode::invalidArgument, context + ": not a regular file", EINVAL};
    }
    const int found = ::open(path.c_str(), kFlags | O_NOFOLLOW | O_NONBLOCK);
    if (found < 0) return Error::fromErrno(errno, context);
    auto opened = claimed({found, false}, path);
    if (opened && ::ftruncate(found, 0) != 0) {
        const int failure = errno;
        ::close(found);
        return Error::fromErrno(failure, context);
    }
    return opened;
}

Written writeAt(int descriptor, std::uint64_t offset, const std::uint8_t* data, std::uint64_t size) {
    Written written;
    while (written.bytes < size) {
        const ssize_t count = ::pwrite(descriptor, data + written.bytes, size - written.bytes,
                                       static_cast<off_t>(offset + written.bytes));
        if (count > 0) {
            written.bytes += static_cast<std::uint64_t>(count);
        } else if (count == 0 || errno != EINTR) {
            // A write of nothing is a full device that does not say so.
            written.systemError = count == 0 ? ENOSPC : errno;
            break;
        }
    }
    return written;
}

}  // namespace lm::storage
