#include "sim/serial_line.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace lm::sim {
namespace {

/// No echo and no translation of any byte; with a baud rate of 0 the speed stays.
bool makeRaw(int descriptor, std::uint32_t baudrate) {
    termios settings{};
    if (::tcgetattr(descriptor, &settings) != 0) return false;
    ::cfmakeraw(&settings);
    if (baudrate != 0 && ::cfsetspeed(&settings, baudrate) != 0) return false;
    return ::tcsetattr(descriptor, TCSANOW, &settings) == 0;
}

}  // namespace

Result<std::unique_ptr<SerialLine>> SerialLine::open(const Options& options) {
    std::unique_ptr<SerialLine> line(new SerialLine(options));
    const Result<void> plugged = line->plug();
    if (!plugged.ok()) return plugged.error();
    return line;
}

SerialLine::~SerialLine() {
    pull();
}

Result<void> SerialLine::plug() {
    if (plugged()) return {};
    Result<void> opened = options_.serialDevice.empty() ? makePseudoTerminal() : openDevice();
    if (opened.ok() && !options_.serialLink.empty()) opened = makeLink();
    if (!opened.ok()) pull();
    return opened;
}

Result<void> SerialLine::makePseudoTerminal() {
    descriptor_ = UniqueFd(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    std::array<char, 64> name{};
    if (!descriptor_.valid() || ::grantpt(descriptor_.get()) != 0 || ::unlockpt(descriptor_.get()) != 0 ||
        ::ptsname_r(descriptor_.get(), name.data(), name.size()) != 0) {
        return Error::fromErrno(errno, "pseudo-terminal");
    }
    device_ = name.data();
    // Opened and closed once, it tells from now on that no one is there; its settings stay.
    const UniqueFd other(::open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!other.valid() || !makeRaw(other.get(), 0)) return Error::fromErrno(errno, device_);
    return {};
}

Result<void> SerialLine::openDevice() {
    device_ = options_.serialDevice;
    descriptor_ = UniqueFd(::open(device_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!descriptor_.valid() || !makeRaw(descriptor_.get(), options_.baudrate))
        return Error::fromErrno(errno, device_);
    return {};
}

Result<void> SerialLine::makeLink() const {
    struct stat there {};
    if (::lstat(options_.serialLink.c_str(), &there) == 0 && !S_ISLNK(there.st_mode)) {
        return Error::fromErrno(EEXIST, options_.serialLink);
    }
    // Put in place in one step: who looks finds the old one, none, or this one.
    const std::string made = options_.serialLink + ".new";
    if (::unlink(made.c_str()) != 0 && errno != ENOENT) return Error::fromErrno(errno, made);
    if (::symlink(device_.c_str(), made.c_str()) != 0 ||
        std::rename(made.c_str(), options_.serialLink.c_str()) != 0) {
        return Error::fromErrno(errno, options_.serialLink);
    }
    return {};
}

void SerialLine::pull() {
    if (!plugged()) return;
    // A link that is gone already, or cannot go, changes nothing: it leads nowhere from now on.
    if (!options_.serialLink.empty()) ::unlink(options_.serialLink.c_str());
    descriptor_ = UniqueFd();
}

bool SerialLine::isOpenedByPeer() const {
    if (!plugged()) return false;
    pollfd state{descriptor_.get(), 0, 0};
    return ::poll(&state, 1, 0) >= 0 && (state.revents & POLLHUP) == 0;
}

Result<std::size_t> SerialLine::read(std::span<std::uint8_t> buffer) const {
    const ssize_t count = ::read(descriptor_.get(), buffer.data(), buffer.size());
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno == EAGAIN || errno == EINTR) return std::size_t{0};
    return Error::fromErrno(errno, device_);
}

Result<std::size_t> SerialLine::write(std::span<const std::uint8_t> bytes) const {
    const ssize_t count = ::write(descriptor_.get(), bytes.data(), bytes.size());
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno == EAGAIN || errno == EINTR) return std::size_t{0};
    return Error::fromErrno(errno, device_);
}

}  // namespace lm::sim
