#include "hal/can_interfaces.h"

#include <cerrno>
#include <linux/if.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <utility>

#include "core/unique_fd.h"

namespace lm::hal {
namespace {

constexpr std::size_t kReplyBytes = 65536;
constexpr std::uint32_t kSequence = 1;

/// Sends one request on a socket of its own and returns the reply; the kernel has it ready when send returns.
Result<NetlinkMessage> exchange(const NetlinkMessage& request) {
    const UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket.valid()) return Error::fromErrno(errno, "netlink socket");
    ssize_t sent = -1;
    do {
        sent = ::send(socket.get(), request.data(), request.size(), 0);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) return Error::fromErrno(errno, "netlink send");
    NetlinkMessage reply(kReplyBytes);
    ssize_t received = -1;
    do {
        received = ::recv(socket.get(), reply.data(), reply.size(), 0);
    } while (received < 0 && errno == EINTR);
    if (received < 0) return Error::fromErrno(errno, "netlink receive");
    reply.resize(static_cast<std::size_t>(received));
    return reply;
}

/// The name does not exist, or cannot: the kernel would call one that is too long a wrong argument.
Error missing(const std::string& name) {
    return {
        .code = ErrorCode::notFound, .message = "CAN interface '" + name + "' not found", .sysErrno = ENODEV};
}

Error inContext(const std::string& name, const char* action, Error error) {
    if (error.sysErrno == ENODEV) return missing(name);
    error.message = name + action + ": " + error.message;
    return error;
}

Result<void> acknowledged(const std::string& name, const char* action, const NetlinkMessage& request) {
    if (name.empty() || name.size() >= IFNAMSIZ) return missing(name);
    const auto reply = exchange(request);
    if (!reply) return inContext(name, action, reply.error());
    const auto read = readAcknowledgement(reply.value(), kSequence);
    if (!read) return inContext(name, action, read.error());
    return {};
}

}  // namespace

Result<CanInterfaceState> NetlinkCanInterfaces::query(const std::string& name) {
    if (name.empty() || name.size() >= IFNAMSIZ) return missing(name);
    const auto reply = exchange(interfaceQuery(name, kSequence));
    if (!reply) return inContext(name, "", reply.error());
    auto state = readInterfaceReply(reply.value(), kSequence);
    if (!state) return inContext(name, "", state.error());
    return state;
}

Result<void> NetlinkCanInterfaces::switchUp(const std::string& name) {
    return acknowledged(name, " up", interfaceSwitch(name, true, kSequence));
}

Result<void> NetlinkCanInterfaces::switchDown(const std::string& name) {
    return acknowledged(name, " down", interfaceSwitch(name, false, kSequence));
}

Result<void> NetlinkCanInterfaces::configure(const std::string& name, const CanInterfaceSettings& settings) {
    if (settings.dataBitTiming && !settings.fd) {
        return Error{.code = ErrorCode::invalidArgument, .message = "data bit timing requires CAN FD"};
    }
    return acknowledged(name, "", interfaceSettings(name, settings, kSequence));
}

}  // namespace lm::hal
