#include "core/durable_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace lm {
namespace {

/// The errno of a flush, or 0 when the system has none for such a file.
int withoutUnsupported(int systemError) {
    const bool unsupported = systemError == EINVAL || systemError == ENOTSUP || systemError == ENOSYS;
    return unsupported ? 0 : systemError;
}

/// After EINTR the descriptor is gone all the same.
int closed(int descriptor) {
    return ::close(descriptor) == 0 || errno == EINTR ? 0 : errno;
}

int writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        // A write of nothing is a full device that does not say so.
        if (count <= 0) return count == 0 ? ENOSPC : errno;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

int writeInto(const char* device, std::string_view text) {
    const int descriptor = ::open(device, O_WRONLY | O_CLOEXEC);
    if (descriptor < 0) return errno;
    const int failure = writeAll(descriptor, text);
    const int late = closed(descriptor);
    return failure != 0 ? failure : late;
}

int replace(const std::filesystem::path& path, std::string_view text, const struct stat* old) {
    StagedFile file(path.string() + "." + std::to_string(::getpid()) + ".tmp");
    if (const int failure = file.create(); failure != 0) return failure;
    if (old != nullptr) {
        // Only root can give it to somebody else; everybody else gets a file of their own.
        [[maybe_unused]] const int given = ::fchown(file.descriptor(), old->st_uid, old->st_gid);
        if (::fchmod(file.descriptor(), old->st_mode & 07777U) != 0) return errno;
    }
    if (const int failure = file.write(text); failure != 0) return failure;
    return file.commit(path);
}

}  // namespace

int flushToDisk(int descriptor) {
    while (::fdatasync(descriptor) != 0) {
        if (errno != EINTR) return withoutUnsupported(errno);
    }
    return 0;
}

int flushDirectoryToDisk(const std::filesystem::path& directory) {
    const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // Who may write into a directory need not be allowed to read it.
    if (descriptor < 0) return errno == EACCES ? 0 : errno;
    const int failure = ::fsync(descriptor) == 0 ? 0 : withoutUnsupported(errno);
    ::close(descriptor);
    return failure;
}

StagedFile::~StagedFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
    if (made_) ::unlink(temporary_.c_str());
}

int StagedFile::create() {
    descriptor_ = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (descriptor_ < 0) return errno;
    made_ = true;
    return 0;
}

int StagedFile::write(std::string_view text) {
    if (const int failure = writeAll(descriptor_, text); failure != 0) return failure;
    if (const int failure = flushToDisk(descriptor_); failure != 0) return failure;
    return closed(std::exchange(descriptor_, -1));
}

int StagedFile::commit(const std::filesystem::path& target) {
    if (std::rename(temporary_.c_str(), target.c_str()) != 0) return errno;
    made_ = false;
    const std::filesystem::path directory = target.parent_path();
    return flushDirectoryToDisk(directory.empty() ? "." : directory);
}

int replaceOrWrite(const std::filesystem::path& path, std::string_view text) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return replace(path, text, nullptr);
    if (!S_ISREG(status.st_mode)) return writeInto(path.c_str(), text);
    // A link stays and leads to the new file.
    std::error_code failure;
    const std::filesystem::path real = std::filesystem::canonical(path, failure);
    return failure ? failure.value() : replace(real, text, &status);
}

}  // namespace lm
