// What a slave can do in DAQ, asked of it: processor, resolution, event channels, the lists that it has from
// the start. A slave need not know most of the questions: one that it refuses as unknown, or leaves without
// an answer while it answers SYNCH, is passed over.
//
// Threads: any; holds the line until all is read. Lifetime: the connection is borrowed for the call.
#pragma once

#include "xcp/connection.h"
#include "xcp/daq_plan.h"

namespace lm::xcp {

/// The questions.
struct DaqParts {
    bool processor = true;
    bool resolution = true;
    bool events = true;
};

/// Puts what the slave says of the `wanted` parts into `capabilities`, of which the others must be there, and
/// tells which parts it answered. Errors: as of readDaqCapabilities(); that of a processor question that was
/// not answered.
Result<DaqParts> askDaqParts(Connection& connection, const DaqParts& wanted, DaqCapabilities& capabilities);

/// What the slave says of itself to one question each, told without a warning: a slave that stays silent at
/// the first is not asked the second. The parts that it did not tell are not touched. Errors: those of a
/// line that is gone.
Result<DaqParts> glanceAtDaq(Connection& connection, DaqCapabilities& capabilities);

/// Likewise the static and predefined lists, with what each predefined one carries as far as READ_DAQ tells
/// it. False: the slave does not tell its lists, and there are none in `capabilities`.
Result<bool> askDaqLists(Connection& connection, DaqCapabilities& capabilities);

/// See Master::daqCapabilities(). Errors: unsupported "slave does not offer the DAQ resource", protocolError
/// "COMMAND response too short", the connection's.
Result<DaqCapabilities> readDaqCapabilities(Connection& connection);

}  // namespace lm::xcp
