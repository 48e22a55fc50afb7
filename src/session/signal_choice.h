// From the texts that name the signals of a measurement, NAME or NAME@EVENT with patterns, to objects of the
// A2L and the event channels that sample them.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "a2l/object.h"
#include "core/result.h"
#include "session/session_config.h"
#include "xcp/daq_plan.h"

namespace lm::session {

struct ChosenSignal {
    a2l::Object object;
    std::uint16_t event = 0;
};

struct SignalChoice {
    std::vector<ChosenSignal>
        chosen;  ///< in the order of the texts; what a pattern matches, in that of the A2L
    std::vector<std::string> warnings;  ///< one for each pattern that left something out
};

/// Whether a signal that a pattern matches can be measured. Error: why not.
using CanMeasure = std::function<Result<void>(const ChosenSignal&)>;

/// Reads each text as NAME or NAME@EVENT. A name with * or ? stands for the measurements that match, for the
/// parameters when there are none; what cannot be measured is left out, and so is what is chosen already.
/// EVENT is a number, else a name as EventChannel has it; without it `bare` tells the event. Errors: "stoul:
/// ..." for an event that is neither, findObject's, "'PATTERN' matches ...", that a name is no event's or
/// that of several.
Result<SignalChoice> chooseSignals(const a2l::Description& description, const std::vector<std::string>& texts,
                                   const DefaultEvent& bare, const xcp::DaqCapabilities& capabilities,
                                   const CanMeasure& canMeasure);

}  // namespace lm::session
