// From the texts that name the signals of a measurement, NAME[@EVENT[/PRESCALER]] with patterns, to objects
// of the A2L, the event channels that sample them, and each how many of their samples is taken.
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
    std::uint8_t prescaler = 1;
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

/// Reads each text as NAME, NAME@EVENT, NAME@EVENT/PRESCALER or NAME/PRESCALER; a name that stands in the
/// A2L, or is an event's, is not taken apart. A name of several elements stands for all of them, NAME[3] for
/// one. A name with * or ? stands for the measurements that match, parts of instances included, for the
/// parameters when there are none; what cannot be measured is left out, and so is what is chosen already.
/// EVENT is a number, else a name as EventChannel has it. Errors: "stoul: ..." for an event that is neither,
/// findSignalElements', "'PATTERN' matches ...", that a name is no event's or that of several, that a
/// prescaler is no number from 1 to 255, that the ECU offers none, or that the signals of one event have
/// several.
Result<SignalChoice> chooseSignals(const SignalSource& source, const std::vector<std::string>& texts,
                                   const CanMeasure& canMeasure);

}  // namespace lm::session
