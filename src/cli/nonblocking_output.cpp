#include "cli/nonblocking_output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace lm::cli {

static_assert(NonblockingOutput::kMaxWrite <= PIPE_BUF);

namespace {

UniqueFd openAnew(int descriptor) {
    // A descriptor that must not be written to stays so.
    if ((::fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_RDONLY) return UniqueFd();
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    return UniqueFd(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

bool isWritableNow(int descriptor) {
    pollfd wait = {descriptor, POLLOUT, 0};
    return ::poll(&wait, 1, 0) > 0;
}

}  // namespace

NonblockingOutput::NonblockingOutput(int descriptor) : descriptor_(descriptor), kind_(Kind::polled) {
    struct stat info = {};
    if (::fstat(descriptor, &info) != 0) return;
    if (S_ISREG(info.st_mode)) kind_ = Kind::file;
    if (S_ISSOCK(info.st_mode)) kind_ = Kind::socket;
    if (!S_ISFIFO(info.st_mode) && !S_ISCHR(info.st_mode)) return;
    own_ = openAnew(descriptor);
    if (!own_.valid()) return;
    descriptor_ = own_.get();
    kind_ = Kind::reopened;
}

Result<std::size_t> NonblockingOutput::tryWrite(std::string_view text) {
    text = text.substr(0, kMaxWrite);
    ssize_t count = 0;
    do {
        if (kind_ == Kind::polled && !isWritableNow(descriptor_)) return std::size_t{0};
        count = kind_ == Kind::socket
                    ? ::send(descriptor_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL)
                    : ::write(descriptor_, text.data(), text.size());
    } while (count < 0 && errno == EINTR);
    if (count >= 0) return static_cast<std::size_t>(count);
    const int failure = errno;
    if (failure == EAGAIN || failure == EWOULDBLOCK) return std::size_t{0};
    return Error{ErrorCode::ioError, std::generic_category().message(failure), failure};
}

void NonblockingOutput::waitWritable(int wakeUp, std::chrono::milliseconds limit) const {
    std::array<pollfd, 2> waits = {pollfd{descriptor_, POLLOUT, 0}, pollfd{wakeUp, POLLIN, 0}};
    // An interrupted or failed wait ends early; the caller tries again in any case.
    ::poll(waits.data(), waits.size(), static_cast<int>(limit.count()));
}

}  // namespace lm::cli
