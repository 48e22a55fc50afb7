// What a slave can do in DAQ, asked of it: processor, resolution, event channels.
//
// Threads: any; holds the line until all is read. Lifetime: the connection is borrowed for the call.
#pragma once

#include "xcp/connection.h"
#include "xcp/daq_plan.h"

namespace lm::xcp {

/// See Master::daqCapabilities(). Errors: unsupported "slave does not offer the DAQ resource", protocolError
/// "COMMAND response too short", the connection's.
Result<DaqCapabilities> readDaqCapabilities(Connection& connection);

}  // namespace lm::xcp
