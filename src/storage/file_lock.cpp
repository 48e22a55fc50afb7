#include "storage/file_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace lm::storage {
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

}  // namespace lm::storage
