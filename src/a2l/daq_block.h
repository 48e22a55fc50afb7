// Reads the DAQ block of interface data: what the ECU can do in DAQ, its lists and its events.
//
// Threads: one at a time. Lifetime: the record owns what it takes from the block.
#pragma once

#include "a2l/block.h"
#include "a2l/diagnostics.h"
#include "a2l/xcp_interface.h"

namespace lm::a2l {

/// The names of keywords decide, whatever numbers a file gives them. A value that is missing or cannot be
/// read is reported and stays at its default. Throws BlockError without the first word.
XcpDaq readDaq(const Block& block, Diagnostics& diagnostics);

}  // namespace lm::a2l
