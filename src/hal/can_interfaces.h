// The machine's CAN interfaces by name: state, bit timing and controller mode, on and off.
//
// Threads: stateless; any thread, but two that configure one interface get in each other's way. Lifetime:
// nothing is kept between calls.
#pragma once

#include <string>

#include "core/result.h"
#include "hal/can_interface_message.h"
#include "hal/can_interface_state.h"

namespace lm::hal {

class ICanInterfaces {
  public:
    virtual ~ICanInterfaces() = default;

    /// Errors: notFound "CAN interface 'NAME' not found", and by errno "NAME: " with "netlink socket",
    /// "netlink send", "netlink receive", "netlink request" or "unexpected netlink reply" and the reason.
    virtual Result<CanInterfaceState> query(const std::string& name) = 0;

    /// Errors as of query, behind "NAME up: " or "NAME down: ".
    virtual Result<void> switchUp(const std::string& name) = 0;
    virtual Result<void> switchDown(const std::string& name) = 0;

    /// For an interface that is down. Errors as of query, and "data bit timing requires CAN FD".
    virtual Result<void> configure(const std::string& name, const CanInterfaceSettings& settings) = 0;
};

/// The kernel's own, through rtnetlink. Changes need CAP_NET_ADMIN (EPERM without).
class NetlinkCanInterfaces final : public ICanInterfaces {
  public:
    Result<CanInterfaceState> query(const std::string& name) override;
    Result<void> switchUp(const std::string& name) override;
    Result<void> switchDown(const std::string& name) override;
    Result<void> configure(const std::string& name, const CanInterfaceSettings& settings) override;
};

}  // namespace lm::hal
