// Reads the module's IF_DATA block for XCP into the interface record.
//
// Threads: one at a time. Lifetime: the record owns what it takes from the block.
#pragma once

#include "a2l/block.h"
#include "a2l/diagnostics.h"
#include "a2l/xcp_interface.h"

namespace lm::a2l {

/// True for an IF_DATA block that begins with XCP or XCPplus.
bool isXcpInterfaceData(const Block& block);

/// True for one of CCP, the protocol before XCP.
bool isCcpInterfaceData(const Block& block);

/// Adds the parts that `xcp` does not have yet. A sub-block that cannot be read is reported and not used; the
/// others stay.
void readXcpInterface(const Block& ifData, XcpInterface& xcp, Diagnostics& diagnostics);

}  // namespace lm::a2l
