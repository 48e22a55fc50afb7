// In the words of the user, what of a measurement the ECU refused: signals and events, not ODT entries.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <cstdint>
#include <string>

#include "session/measurement_types.h"
#include "xcp/daq_setup.h"

namespace lm::session {

/// `code` is the ECU's error code. Empty when the refusal was of the measurement as a whole, but for want of
/// memory.
std::string refusalHint(const MeasurementPlan& plan, const xcp::DaqCapabilities& capabilities,
                        const xcp::DaqRefusal& refusal, std::int32_t code);

}  // namespace lm::session
