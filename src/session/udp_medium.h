// XCP on UDP as a medium: the host of the configuration, the port of the configuration or the A2L.
//
// Threads and lifetime: those of IMedium.
#pragma once

#include <memory>

#include "a2l/xcp_interface.h"
#include "core/result.h"
#include "session/channel_pool.h"
#include "session/medium.h"
#include "session/session_config.h"

namespace lm::session {

/// Null when no host is configured. Error: unsupported "XCP on TCP/IP is not supported yet (use UDP)".
Result<std::unique_ptr<IMedium>> makeUdpMedium(const SessionConfig& config, const a2l::XcpInterface& ifData,
                                               ChannelPool& pool);

}  // namespace lm::session
