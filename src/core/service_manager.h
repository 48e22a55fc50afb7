// The program that started this one as a service (systemd), told how it is: datagrams to the socket that
// NOTIFY_SOCKET names, without a library.
//
// Threads: one at a time. Lifetime: owns its socket.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

#include "core/result.h"
#include "core/unique_fd.h"

namespace lm {

class ServiceManager {
  public:
    /// None: no one there. Errors: "NOTIFY_SOCKET='NAME': REASON".
    static Result<std::optional<ServiceManager>> ofEnvironment();

    /// How long it waits for "WATCHDOG=1" before it takes the service for dead; none: it does not.
    std::optional<std::chrono::microseconds> watchdog() const { return watchdog_; }

    /// "READY=1" and the like, one a line. Never waits; errors: that it was not taken, by errno "cannot tell
    /// the service manager: REASON".
    Result<void> tell(std::string_view lines) const;

  private:
    ServiceManager() = default;

    UniqueFd socket_;
    sockaddr_un address_{};
    socklen_t addressSize_ = 0;
    std::optional<std::chrono::microseconds> watchdog_;
};

}  // namespace lm
