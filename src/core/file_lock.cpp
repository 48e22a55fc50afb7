#include "core/file_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace lm {
namespace {

struct flock wholeFile() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

}  // namespace

bool lockForWriting(int descriptor) {
    struct flock lock = wholeFile();
    return ::fcntl(descriptor, F_OFD_SETLK, &lock) == 0 || (errno != EAGAIN && errno != EACCES);
}

bool isLockedByAnother(int descriptor) {
    struct flock lock = wholeFile();
    return ::fcntl(descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool isLockedForWriting(int descriptor) {
    struct flock lock = wholeFile();
    lock.l_type = F_RDLCK;
    return ::fcntl(descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_WRLCK;
}

bool standsAt(int descriptor, const std::filesystem::path& path) {
    struct stat opened {};
    struct stat named {};
    return ::fstat(descriptor, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace lm
