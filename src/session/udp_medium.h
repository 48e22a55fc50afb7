// XCP on UDP as a medium: the host of the configuration, the port of the configuration or the A2L.
//
// Threads and lifetime: those of IMedium.
#pragma once

#include "session/medium.h"

namespace lm::session {

/// Error: unsupported "XCP on TCP/IP is not supported yet (use UDP)".
MediumMaker makeUdpMedium;

}  // namespace lm::session
