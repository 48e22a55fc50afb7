#include "storage/write/claimed_file.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "core/durable_file.h"
#include "core/file_lock.h"
#include "storage/format/recording_meta.h"

namespace lm::storage {

/// Refused when another program is writing the file, or has just removed it.
Result<ClaimedFile> ClaimedFile::claimed(ClaimedFile opened) {
    if (lockForWriting(opened.descriptor()) && standsAt(opened.descriptor(), opened.path_)) return opened;
    return recordedByAnother(opened.path_.parent_path());
}

Result<ClaimedFile> ClaimedFile::claim(const std::filesystem::path& path) {
    constexpr int kFlags = O_WRONLY | O_CLOEXEC;
    const std::string context = "cannot create " + path.string();
    UniqueFd made(::open(path.c_str(), kFlags | O_CREAT | O_EXCL, 0666));
    if (made.valid()) return claimed({path, std::move(made), true});
    if (errno != EEXIST) return Error::fromErrno(errno, context);
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        return Error{ErrorCode::invalidArgument, context + ": not a regular file", EINVAL};
    }
    UniqueFd found(::open(path.c_str(), kFlags | O_NOFOLLOW | O_NONBLOCK));
    if (!found.valid()) return Error::fromErrno(errno, context);
    auto opened = claimed({path, std::move(found), false});
    if (opened && ::ftruncate(opened.value().descriptor(), 0) != 0) return Error::fromErrno(errno, context);
    return opened;
}

Result<ClaimedFile> ClaimedFile::create(const std::filesystem::path& path, const void* data,
                                        std::uint64_t size, Begin begin) {
    auto opened = claim(path);
    if (!opened) return opened;
    ClaimedFile& file = opened.value();
    const Written written = writeAt(file.descriptor(), 0, data, size);
    int failure = written.systemError;
    if (failure == 0 && begin == Begin::onDisk) failure = file.flushToDisk();
    if (failure != 0) {
        if (file.isNew()) ::unlink(path.c_str());
        return file.writeError(failure);
    }
    file.end_ = size;
    return opened;
}

Written ClaimedFile::append(const void* data, std::uint64_t size, const WholeOf& wholeOf) {
    Written written = writeAt(descriptor(), end_, data, size);
    const std::uint64_t whole = wholeOf(written.bytes);
    end_ += whole;
    if (written.bytes != whole) {
        // Every write goes to end_, so a torn unit that cannot be cut off is overwritten by the next one.
        [[maybe_unused]] const int cut = ::ftruncate(descriptor(), static_cast<off_t>(end_));
    }
    written.bytes = whole;
    return written;
}

int ClaimedFile::flushToDisk() {
    return lm::flushToDisk(descriptor());
}

Error ClaimedFile::writeError(int systemError) const {
    return Error::fromErrno(systemError, "cannot write " + path_.string());
}

}  // namespace lm::storage
