// What runs in the ECU, for its recordings: the EPK and the checksums of its segments.
//
// Threads: one at a time, beside a running measurement, too. Lifetime: everything is borrowed for the call.
#pragma once

#include <cstdint>

#include "a2l/description.h"
#include "core/stop_token.h"
#include "session/session_config.h"
#include "storage/format/recording_events.h"
#include "xcp/master.h"

namespace lm::session {

/// Asks only for what the ECU offers, begins no question after two seconds and ends with the first one that
/// stays without an answer: a measurement waits for this. `nowNs` is on the clock of the recording.
storage::EcuNote noteEcu(xcp::Master& master, const a2l::Description& description,
                         const SessionConfig& config, const StopToken& stop, std::int64_t nowNs);

}  // namespace lm::session
