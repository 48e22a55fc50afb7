#include "hal/serial_speed.h"

#include <asm/termbits.h>
#include <cerrno>
#include <string>
#include <sys/ioctl.h>
#include <utility>

namespace lm::hal {
namespace {

/// All bits but the speed codes of both directions.
constexpr tcflag_t kWithoutSpeed = 0xEFF0EFF0;

/// The speeds that every driver knows by a code of their own.
constexpr std::pair<std::uint32_t, tcflag_t> kStandardSpeeds[] = {
    {19200, B19200},     {38400, B38400},     {57600, B57600},     {115200, B115200},   {230400, B230400},
    {460800, B460800},   {500000, B500000},   {576000, B576000},   {921600, B921600},   {1000000, B1000000},
    {1152000, B1152000}, {1500000, B1500000}, {2000000, B2000000}, {3000000, B3000000}, {4000000, B4000000}};

tcflag_t speedCode(std::uint32_t baud) {
    for (const auto& [speed, code] : kStandardSpeeds) {
        if (speed == baud) return code;
    }
    return BOTHER;
}

}  // namespace

Result<void> setLineSpeed(int descriptor, std::uint32_t baud) {
    if (baud == 0) return Error{.code = ErrorCode::invalidArgument, .message = "baud rate 0"};
    termios2 settings{};
    if (::ioctl(descriptor, TCGETS2, &settings) != 0) {
        return Error::fromErrno(errno, "cannot read the line settings");
    }
    // Without a code of its own the input takes the speed of the output.
    settings.c_cflag = (settings.c_cflag & kWithoutSpeed) | speedCode(baud);
    settings.c_ispeed = baud;
    settings.c_ospeed = baud;
    if (::ioctl(descriptor, TCSETS2, &settings) != 0) {
        return Error::fromErrno(errno, "cannot set " + std::to_string(baud) + " baud");
    }
    return {};
}

}  // namespace lm::hal
