// The rtnetlink messages of CAN interfaces as bytes: requests built, replies read. Native byte order, as the
// kernel of the same machine speaks.
//
// Threads: pure functions. Lifetime: nothing is kept; a reply is borrowed during the call.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "hal/can_interface_state.h"

namespace lm::hal {

struct CanInterfaceSettings {
    CanBitTiming bitTiming;
    std::optional<CanBitTiming> dataBitTiming;  ///< only with `fd`
    bool fd = false;
    bool listenOnly = false;
};

using NetlinkMessage = std::vector<std::uint8_t>;

/// Asks for the state of the interface; answered by readInterfaceReply.
NetlinkMessage interfaceQuery(std::string_view name, std::uint32_t sequence);

/// Switches the interface on or off; answered by readAcknowledgement.
NetlinkMessage interfaceSwitch(std::string_view name, bool up, std::uint32_t sequence);

/// Sets bit timing and controller mode of an interface that is down; answered by readAcknowledgement.
NetlinkMessage interfaceSettings(std::string_view name, const CanInterfaceSettings& settings,
                                 std::uint32_t sequence);

/// Errors: by errno "netlink request: ..." when the kernel refuses (ENODEV: no such interface), "unexpected
/// netlink reply: ..." for anything that is not a whole answer to the request of that sequence number.
Result<CanInterfaceState> readInterfaceReply(std::span<const std::uint8_t> reply, std::uint32_t sequence);
Result<void> readAcknowledgement(std::span<const std::uint8_t> reply, std::uint32_t sequence);

}  // namespace lm::hal
