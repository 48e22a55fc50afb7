#include "session/transport_choice.h"

#include <array>

#include "session/can_medium.h"
#include "session/serial_medium.h"
#include "session/udp_medium.h"

namespace lm::session {
namespace {

/// The first that is configured counts.
constexpr std::array<MediumMaker*, 3> kMakers = {makeCanMedium, makeUdpMedium, makeSerialMedium};

}  // namespace

Result<std::unique_ptr<IMedium>> chooseTransport(const SessionConfig& config, const a2l::XcpInterface& ifData,
                                                 ChannelPool& pool, const StopToken& stop) {
    for (const auto make : kMakers) {
        auto medium = make(config, ifData, pool, stop);
        if (!medium.ok() || medium.value() != nullptr) return medium;
    }
    Error missing{ErrorCode::invalidArgument,
                  "neither a CAN interface, a serial port nor a UDP host is configured"};
    missing.hint = "-i INTERFACE, --serial PORT[:BAUD] or --udp HOST[:PORT] names one";
    return missing;
}

const a2l::XcpOfMedium* describedMedium(const SessionConfig& config, const a2l::XcpInterface& ifData) {
    if (!config.can.interface.empty()) return ifData.can ? &*ifData.can : nullptr;
    if (!config.udp.host.empty()) return ifData.udp ? &*ifData.udp : nullptr;
    if (!config.serial.port.empty()) return ifData.serial ? &*ifData.serial : nullptr;
    return nullptr;
}

}  // namespace lm::session
