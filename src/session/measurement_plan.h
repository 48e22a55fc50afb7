// From the signal texts of a measurement to DAQ lists, load estimate and the description of a recording.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "session/bus_load.h"
#include "session/measurement_types.h"
#include "session/session_config.h"
#include "session/signal_choice.h"
#include "storage/format/recording_info.h"
#include "xcp/daq_plan.h"
#include "xcp/packet.h"

namespace lm::session {

/// Chooses the signals and packs the DAQ lists. A pattern takes nothing that a recording could not hold when
/// the measurement is `recorded`; `daq` gives the event of names without one, not the source. Errors: those
/// of chooseSignals(), "no signals to measure", those of xcp::planDaq.
Result<MeasurementPlan> planMeasurement(SignalSource source, const std::vector<std::string>& signalTexts,
                                        const SessionConfig::Daq& daq, const xcp::ConnectInfo& connection,
                                        bool recorded = false);

/// The lists as the load estimate wants them.
LoadInput loadInput(const xcp::DaqPlan& plan, const xcp::DaqCapabilities& capabilities);

/// Period of a list's records in nanoseconds, its prescaler included; 0 when its event is not cyclic.
std::uint64_t periodNs(const xcp::DaqList& list, const xcp::DaqCapabilities& capabilities);

/// Shortest nominal period of the lists in nanoseconds, 0 when none is cyclic.
std::uint64_t shortestPeriodNs(const xcp::DaqPlan& plan, const xcp::DaqCapabilities& capabilities);

/// Whether an ECU that was connected anew still takes the plan. Error: protocolError naming the first
/// difference.
Result<void> checkPlanFits(const xcp::DaqPlan& plan, const xcp::DaqCapabilities& capabilities,
                           const xcp::ConnectInfo& connection);

/// Whether a recording can say how each signal is read. Error: unsupported, naming the first that it cannot.
Result<void> requireRecordable(const MeasurementPlan& plan);

/// Groups and signals of a recording of the plan: one group per DAQ list, each signal once per group. Times
/// and texts about the whole recording are left to the caller.
storage::RecordingInfo recordingInfo(const MeasurementPlan& plan, const xcp::DaqCapabilities& capabilities);

/// One line about signals measured in an event that the A2L does not name for them, and the mend; empty when
/// there are none.
std::string foreignEventWarning(const MeasurementPlan& plan);

}  // namespace lm::session
