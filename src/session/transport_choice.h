// Which medium reaches the ECU, from the configuration and the A2L's XCP interface data. The one place that
// knows all media.
//
// Threads: nothing is kept. A CAN channel is opened (or joined), nothing else is. Lifetime: the pool's
// adapter must outlive the medium.
#pragma once

#include <memory>

#include "a2l/xcp_interface.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "session/channel_pool.h"
#include "session/medium.h"
#include "session/session_config.h"

namespace lm::session {

/// CAN when an interface is configured, else UDP when a host is, else the serial line when a port is. Errors:
/// "neither a CAN interface, a serial port nor a UDP host is configured", those of the medium's maker.
Result<std::unique_ptr<IMedium>> chooseTransport(const SessionConfig& config, const a2l::XcpInterface& ifData,
                                                 ChannelPool& pool, const StopToken& stop = {});

/// The block of the medium that chooseTransport() chooses, nullptr when the A2L has none. Part of `ifData`.
const a2l::XcpOfMedium* describedMedium(const SessionConfig& config, const a2l::XcpInterface& ifData);

}  // namespace lm::session
