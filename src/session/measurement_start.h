// What comes before the first command of a measurement: its plan is made, its load accepted, its recording
// described.
//
// Threads: the owner's; nothing is kept. Lifetime: the context borrows everything but its texts and callbacks
// from the session.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "a2l/description.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "session/daq_source.h"
#include "session/measurement_types.h"
#include "session/medium.h"
#include "session/return_check.h"
#include "session/session_config.h"
#include "session/session_state.h"
#include "storage/format/recording_info.h"
#include "xcp/master.h"

namespace lm::session {

/// What a measurement needs of its session.
struct MeasurementContext {
    const SessionConfig& config;
    const a2l::Description& description;
    IMedium& medium;
    xcp::Master& master;
    StopSource& stop;  ///< of the waits of medium and master
    const xcp::DaqCapabilities& capabilities;
    const DaqSource& daqSource;
    const std::atomic<std::uint64_t>& holes;  ///< as of xcp::DaqDecoder::setHoles
    std::string layoutTold;                   ///< as of DaqSource::layoutTold
    std::string ecuName;
    std::function<void(SessionState, const std::string&)> changeState;
    std::function<Result<EcuReturn>()> lookAgain;  ///< after a reconnection
};

/// Answers are certainly those to the questions.
a2l::ReadMemory memoryReader(xcp::Master& master);

struct AcceptedPlan {
    MeasurementPlan plan;
    double busLoad = 0;  ///< of all ECUs on the line, fraction of 1; this ECU's part is claimed
};

/// Plans the signals of the options, else of the configuration, reads where they lie when only the memory
/// tells it, warns of what the user may not expect, and claims the load. Errors, with nothing claimed: those
/// of planMeasurement, requireRecordable and IMedium::claimLoad.
Result<AcceptedPlan> acceptPlan(const MeasurementContext& context, const MeasurementOptions& options);

/// What a recording of the plan, beginning now, says about itself and its groups.
storage::RecordingInfo describeRecording(const MeasurementContext& context, const MeasurementPlan& plan,
                                         const std::filesystem::path& directory);

}  // namespace lm::session
