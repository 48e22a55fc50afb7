// What the DAQ block of an A2L says, for `info --offline`.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "a2l/xcp_interface.h"
#include "cli/json_writer.h"

namespace lm::cli {

/// The line "DAQ", its limits, and one line for each list and each event.
std::string describedDaqLines(const a2l::XcpDaq& daq);

/// The member "daq" of `info --offline --json`.
void writeDescribedDaq(JsonWriter& json, const a2l::XcpDaq& daq);

}  // namespace lm::cli
