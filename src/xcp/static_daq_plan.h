// Which of the DAQ lists that a slave has from the start carry the signals: static ones, whose entries are
// written, and predefined ones, whose entries stand already.
//
// Threads: pure functions. Lifetime: everything is borrowed for the call.
#pragma once

#include <span>
#include <vector>

#include "core/result.h"
#include "xcp/daq_packing.h"
#include "xcp/daq_plan.h"

namespace lm::xcp {

/// Whether some list could carry the signal. Errors: unsupported "the ECU has static DAQ lists and tells
/// nothing about them"; invalidArgument, checkEntrySize()'s, checkEventExists()'s, "no DAQ list of the ECU
/// can be given event N", "no DAQ list that can be given event N carries N bytes at 0xA" (of predefined
/// lists only).
Result<void> checkStaticSignal(const DaqSignal& signal, const DaqRoom& room,
                               const DaqCapabilities& capabilities);

/// Adds the lists to the plan, and the places of the signals. Each group gets the smallest list that holds
/// it, or several when none does; what the configurable lists cannot take is measured by predefined ones
/// that carry it. Errors (invalidArgument): firstOdtEmpty(); "N of M signal(s) fit into the ECU's static DAQ
/// lists ...", with the lists and the mend.
Result<void> planStaticLists(std::span<const DaqSignal> signals, const std::vector<SignalGroup>& groups,
                             const DaqRoom& room, const DaqCapabilities& capabilities, DaqPlan& plan);

}  // namespace lm::xcp
