#include "hal/serial_port.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

#include "hal/serial_speed.h"

namespace lm::hal {
namespace {

constexpr const char* kHowToGetAccess =
    ": no access to serial ports. Add your user to the group dialout in a terminal, then log out and in "
    "again: `sudo usermod -aG dialout $USER`";

Error notOpen() {
    return {.code = ErrorCode::notOpen, .message = "serial port not open"};
}

constexpr short kGone = POLLERR | POLLHUP | POLLNVAL;

Error portGone(const std::string& path) {
    return {.code = ErrorCode::closed, .message = path + ": port gone"};
}

Error cannotOpen(const std::string& path, int systemError) {
    const std::string context = "cannot open " + path;
    if (systemError == EACCES) {
        return {.code = ErrorCode::permissionDenied,
                .message = context + kHowToGetAccess,
                .sysErrno = systemError};
    }
    const auto code = systemError == ENOENT ? ErrorCode::notFound : ErrorCode::ioError;
    return Error::fromErrno(code, systemError, context);
}

/// Neither parity nor flow control, eight data bits and one stop bit, whatever the last user of the port
/// left; modem lines are ignored since most adapters leave them open.
void makeRaw(termios& settings) {
    ::cfmakeraw(&settings);
    settings.c_iflag &= ~static_cast<tcflag_t>(IXOFF | IXANY | INPCK);
    settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | CRTSCTS);
    settings.c_cflag |= CLOCAL | CREAD;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
}

}  // namespace

Result<void> SerialPort::open(const std::string& path, std::uint32_t baud) {
    close();
    do {
        descriptor_ = UniqueFd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    } while (!isOpen() && errno == EINTR);
    if (!isOpen()) return cannotOpen(path, errno);
    path_ = path;
    outputBlocked_ = false;
    auto ready = claim();
    if (ready.ok()) ready = configure(baud);
    if (!ready.ok()) close();
    return ready;
}

/// Keeps others out before anything about the line is changed. TIOCEXCL stops programs that know nothing of
/// locks, flock stops those with the right to pass TIOCEXCL.
Result<void> SerialPort::claim() {
    if (::isatty(descriptor_.get()) != 1) {
        return Error{
            .code = ErrorCode::ioError, .message = path_ + " is not a serial port", .sysErrno = errno};
    }
    if (::flock(descriptor_.get(), LOCK_EX | LOCK_NB) != 0) {
        return cannotOpen(path_, errno == EWOULDBLOCK ? EBUSY : errno);
    }
    if (::ioctl(descriptor_.get(), TIOCEXCL) != 0) return cannotOpen(path_, errno);
    return {};
}

Result<void> SerialPort::configure(std::uint32_t baud) {
    termios settings{};
    const std::string context = "cannot configure " + path_;
    if (::tcgetattr(descriptor_.get(), &settings) != 0) return Error::fromErrno(errno, context);
    makeRaw(settings);
    if (::tcsetattr(descriptor_.get(), TCSANOW, &settings) != 0) return Error::fromErrno(errno, context);
    if (auto set = setBaud(baud); !set.ok()) {
        Error error = set.error();
        error.message = context + ": " + error.text();
        return error;
    }
    if (::tcflush(descriptor_.get(), TCIOFLUSH) != 0) return Error::fromErrno(errno, context);
    return {};
}

Result<void> SerialPort::setBaud(std::uint32_t baud) {
    if (!isOpen()) return notOpen();
    return setLineSpeed(descriptor_.get(), baud);
}

Result<std::size_t> SerialPort::read(std::uint8_t* buffer, std::size_t capacity, int timeoutMs) {
    if (!isOpen()) return notOpen();
    pollfd wait{.fd = descriptor_.get(), .events = POLLIN, .revents = 0};
    const int ready = ::poll(&wait, 1, timeoutMs);
    if (ready < 0 && errno != EINTR) return Error::fromErrno(errno, path_ + ": poll");
    if (ready <= 0) return std::size_t{0};
    if ((wait.revents & (POLLERR | POLLNVAL)) != 0) return portGone(path_);
    const ssize_t count = ::read(descriptor_.get(), buffer, capacity);
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
        const int failure = errno;
        // A port pulled between the two calls fails first and says why afterwards.
        if (::poll(&wait, 1, 0) > 0 && (wait.revents & kGone) != 0) return portGone(path_);
        return Error::fromErrno(failure, path_ + ": read");
    }
    if (count <= 0 && (wait.revents & POLLHUP) != 0) return portGone(path_);
    return static_cast<std::size_t>(std::max<ssize_t>(count, 0));
}

Result<void> SerialPort::write(const std::uint8_t* data, std::size_t length) {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    if (!isOpen()) return notOpen();
    auto lastProgress = steady_clock::now();
    while (length > 0) {
        const ssize_t count = ::write(descriptor_.get(), data, length);
        if (count < 0 && errno != EAGAIN && errno != EINTR) return Error::fromErrno(errno, path_ + ": write");
        const auto now = steady_clock::now();
        outputBlocked_ = count <= 0 && now - lastProgress >= milliseconds(kWriteLimitMs);
        if (outputBlocked_) return Error{.code = ErrorCode::timeout, .message = path_ + ": output blocked"};
        if (count > 0) {
            data += count;
            length -= static_cast<std::size_t>(count);
            lastProgress = now;
        } else if (auto room = waitForRoom(); !room.ok()) {
            return room;
        }
    }
    return {};
}

/// Returns before the write limit: a terminal calls itself ready only when its buffer is almost empty, which
/// takes a slow line longer than that, yet takes bytes before.
Result<void> SerialPort::waitForRoom() {
    constexpr int kRetryMs = 50;
    pollfd wait{.fd = descriptor_.get(), .events = POLLOUT, .revents = 0};
    if (::poll(&wait, 1, kRetryMs) < 0 && errno != EINTR) return Error::fromErrno(errno, path_ + ": poll");
    if ((wait.revents & kGone) != 0) return portGone(path_);
    return {};
}

void SerialPort::close() {
    if (!isOpen()) return;
    // Closing waits for pending output, for half a minute when nothing takes it. The claim would outlive the
    // descriptor as long as anybody else has the terminal open. A port that is gone refuses both, in vain.
    if (outputBlocked_) ::tcflush(descriptor_.get(), TCOFLUSH);
    ::ioctl(descriptor_.get(), TIOCNXCL);
    descriptor_ = UniqueFd();
}

std::vector<std::string> listPorts(const std::filesystem::path& devices) {
    namespace fs = std::filesystem;
    std::vector<std::string> ports;
    const auto list = [&ports](const fs::path& directory, auto isPort) {
        std::error_code failure;
        for (fs::directory_iterator entry(directory, failure), end; !failure && entry != end;
             entry.increment(failure)) {
            if (isPort(*entry)) ports.push_back(entry->path().string());
        }
    };
    list(devices, [](const fs::directory_entry& entry) {
        const std::string name = entry.path().filename().string();
        return name.rfind("ttyUSB", 0) == 0 || name.rfind("ttyACM", 0) == 0;
    });
    list(devices / "serial" / "by-id", [](const fs::directory_entry& entry) {
        std::error_code failure;
        return entry.is_symlink(failure);
    });
    std::sort(ports.begin(), ports.end());
    return ports;
}

}  // namespace lm::hal
