// From the texts that name the signals of a measurement, NAME or NAME@EVENT with patterns, to objects of the
// A2L and the event channels that sample them.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "a2l/object.h"
#include "core/result.h"
#include "session/folder_filter.h"
#include "session/session_config.h"
#include "session/signal_elements.h"
#include "xcp/daq_plan.h"

namespace lm::session {

/// One element of an object.
struct ChosenSignal {
    std::shared_ptr<const a2l::Object> object;
    value::Element element;
    std::uint16_t event = 0;
};

struct SignalChoice {
    std::vector<ChosenSignal>
        chosen;  ///< in the order of the texts; what a pattern matches, in that of the A2L
    std::vector<std::string> warnings;  ///< one for each pattern that left something out
    std::vector<PlaceBytes> placedBy;   ///< what of the memory tells where the elements lie
};

/// Whether a signal that a pattern matches can be measured. Error: why not.
using CanMeasure = std::function<Result<void>(const ChosenSignal&)>;

/// Where signals are looked for.
struct SignalSource {
    const a2l::Description& description;
    const xcp::DaqCapabilities& capabilities;
    DefaultEvent bareEvent = {};  ///< of names without one
    a2l::ReadMemory read = {};    ///< see findSignalElements()
    FolderFilter folders = {};    ///< patterns take nothing else
};

/// More signals than any ECU has memory for.
constexpr std::size_t kMostSignals = 100'000;

/// Reads each text as NAME or NAME@EVENT. A name of several elements stands for all of them, NAME[3] for one.
/// A name with * or ? stands for the measurements that match, parts of instances included, for the parameters
/// when there are none; what cannot be measured is left out, and so is what is chosen already. EVENT is a
/// number, else a name as EventChannel has it. Errors: "stoul: ..." for an event that is neither,
/// findSignalElements', "'PATTERN' matches ...", that a name is no event's or that of several.
Result<SignalChoice> chooseSignals(const SignalSource& source, const std::vector<std::string>& texts,
                                   const CanMeasure& canMeasure);

}  // namespace lm::session
