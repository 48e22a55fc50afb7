// The link set-up of CAN interfaces: state, bit timing and controller mode, on and off.
//
// Threads: stateless; any thread, but two that configure one interface get in each other's way. Lifetime:
// nothing is kept between calls.
#pragma once

#include <string>

#include "core/result.h"
#include "hal/can_link_message.h"
#include "hal/can_link_state.h"

namespace lm::hal {

class ICanLink {
  public:
    virtual ~ICanLink() = default;

    /// Errors: notFound "CAN interface 'NAME' not found", and by errno "NAME: " with "netlink socket",
    /// "netlink send", "netlink receive", "netlink request" or "unexpected netlink reply" and the reason.
    virtual Result<CanLinkState> query(const std::string& name) = 0;

    /// Errors as of query, behind "NAME up: " or "NAME down: ".
    virtual Result<void> switchUp(const std::string& name) = 0;
    virtual Result<void> switchDown(const std::string& name) = 0;

    /// For a link that is down. Errors as of query, and invalidArgument "data bit timing requires CAN FD".
    virtual Result<void> configure(const std::string& name, const CanLinkSettings& settings) = 0;
};

/// The kernel's own, through rtnetlink. Changes need CAP_NET_ADMIN (EPERM without).
class NetlinkCanLink final : public ICanLink {
  public:
    Result<CanLinkState> query(const std::string& name) override;
    Result<void> switchUp(const std::string& name) override;
    Result<void> switchDown(const std::string& name) override;
    Result<void> configure(const std::string& name, const CanLinkSettings& settings) override;
};

}  // namespace lm::hal
