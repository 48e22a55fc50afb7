// Reads and writes any bytes of the ECU: where one address stands for several, those around come along.
//
// Threads: as the master's. Lifetime: the master is borrowed for the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "core/ecu_address.h"
#include "core/result.h"
#include "xcp/master.h"

namespace lm::session {

/// Errors: those of xcp::Master::upload.
Result<std::vector<std::uint8_t>> uploadBytes(xcp::Master& master, xcp::Address address, std::size_t size);

/// Bytes around are read first and written as they are, all of them in block transfer if so wanted. Errors:
/// those of xcp::Master::upload and download.
Result<void> downloadBytes(xcp::Master& master, xcp::Address address, std::span<const std::uint8_t> bytes,
                           bool inBlocks = false);

}  // namespace lm::session
