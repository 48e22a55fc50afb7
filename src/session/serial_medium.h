// XCP on a serial line as a medium: the port of the configuration, the text that the ECU prints on the same
// line, and what fits onto it at its baud rate.
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

/// Null when no port is configured.
Result<std::unique_ptr<IMedium>> makeSerialMedium(const SessionConfig& config,
                                                  const a2l::XcpInterface& ifData, ChannelPool& pool);

}  // namespace lm::session
