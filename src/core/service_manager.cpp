#include "core/service_manager.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "core/text.h"

namespace lm {
namespace {

constexpr std::uint64_t kMost = std::uint64_t{1} << 62U;

std::optional<std::uint64_t> numberOf(const char* variable) {
    const char* const text = std::getenv(variable);
    if (text == nullptr) return std::nullopt;
    const auto number = parseUnsigned(text, NumberBase::decimal, kMost);
    return number ? std::optional(number.value()) : std::nullopt;
}

/// WATCHDOG_PID names the process that is meant, where it is set.
std::optional<std::chrono::microseconds> watchdogOfEnvironment() {
    const auto time = numberOf("WATCHDOG_USEC");
    const auto process = numberOf("WATCHDOG_PID");
    if (!time || *time == 0 || (process && *process != static_cast<std::uint64_t>(::getpid())))
        return std::nullopt;
    return std::chrono::microseconds(static_cast<std::int64_t>(*time));
}

}  // namespace

Result<std::optional<ServiceManager>> ServiceManager::ofEnvironment() {
    const char* const variable = std::getenv("NOTIFY_SOCKET");
    const std::string_view name = variable == nullptr ? "" : variable;
    if (name.empty()) return std::optional<ServiceManager>();
    const std::string context = "NOTIFY_SOCKET='" + std::string(name) + "'";
    ServiceManager manager;
    if ((name.front() != '/' && name.front() != '@') || name.size() >= sizeof manager.address_.sun_path)
        return Error{ErrorCode::invalidArgument, context + ": neither a path nor an abstract name (@NAME)"};
    manager.socket_ = UniqueFd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!manager.socket_.valid()) return Error::fromErrno(errno, context);
    manager.address_.sun_family = AF_UNIX;
    std::memcpy(manager.address_.sun_path, name.data(), name.size());
    // An abstract name begins with a zero and ends with its length.
    if (name.front() == '@') manager.address_.sun_path[0] = '\0';
    manager.addressSize_ =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (name.front() == '@' ? 0 : 1));
    manager.watchdog_ = watchdogOfEnvironment();
    return std::optional(std::move(manager));
}

Result<void> ServiceManager::tell(std::string_view lines) const {
    const auto* const address = reinterpret_cast<const sockaddr*>(&address_);
    ssize_t sent = -1;
    do {
        sent = ::sendto(socket_.get(), lines.data(), lines.size(), MSG_NOSIGNAL, address, addressSize_);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) return Error::fromErrno(errno, "cannot tell the service manager");
    return {};
}

}  // namespace lm
