#include "session/measurement_plan.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <set>
#include <string_view>

#include "a2l/object.h"
#include "session/signal_choice.h"

namespace lm::session {
namespace {

PlannedSignal plannedSignal(ChosenSignal chosen) {
    const a2l::Object& object = *chosen.object;
    PlannedSignal signal;
    signal.event = chosen.event;
    signal.isForeignEvent = !object.events.empty() && std::find(object.events.begin(), object.events.end(),
                                                                signal.event) == object.events.end();
    signal.element = std::move(chosen.element);
    signal.description = object.description;
    signal.displayName = object.displayName;
    return signal;
}

xcp::DaqSignal daqSignal(const ChosenSignal& signal) {
    const auto size = static_cast<std::uint32_t>(signal.element.size());
    return {signal.element.address, size, signal.event, signal.prescaler};
}

Result<void> requireRecordable(const value::Element& element) {
    if (!element.coding.hasBitOperation()) return {};
    return Error{
        ErrorCode::unsupported,
        element.name + ": a recording cannot say what its BIT_OPERATION does, measure it without recording"};
}

/// A static slave may need more than one list for an event.
bool several(const xcp::DaqPlan& plan, std::uint16_t event) {
    return std::count_if(plan.lists.begin(), plan.lists.end(),
                         [event](const xcp::DaqList& list) { return list.eventChannel == event; }) > 1;
}

bool sameEntries(const std::vector<xcp::Odt>& planned, const std::vector<xcp::Odt>& now) {
    for (std::size_t i = 0; i < std::max(planned.size(), now.size()); ++i) {
        const std::size_t count = i < now.size() ? now[i].entries.size() : 0;
        if (i >= planned.size()) {
            if (count != 0) return false;
            continue;
        }
        const auto& entries = planned[i].entries;
        if (count != entries.size()) return false;
        for (std::size_t j = 0; j < count; ++j) {
            const xcp::OdtEntry& entry = now[i].entries[j];
            if (entry.address != entries[j].address || entry.size != entries[j].size) return false;
        }
    }
    return true;
}

/// Whether the slave still has room for the list, or still sends it as it stands in the plan.
bool isStillThere(const xcp::DaqList& list, const xcp::DaqCapabilities& capabilities) {
    const auto found = std::find_if(capabilities.lists.begin(), capabilities.lists.end(),
                                    [&list](const auto& now) { return now.number == list.number; });
    if (found == capabilities.lists.end()) return false;
    if (found->fixedEvent && *found->fixedEvent != list.eventChannel) return false;
    const bool predefined = found->predefined || found->number < capabilities.minDaq;
    if (predefined != list.predefined) return false;
    if (predefined) return sameEntries(list.odts, found->odts);
    return list.odts.size() <= found->maxOdt &&
           std::all_of(list.odts.begin(), list.odts.end(),
                       [&found](const xcp::Odt& odt) { return odt.entries.size() <= found->maxEntries; });
}

bool sameLists(const xcp::DaqPlan& plan, const xcp::DaqCapabilities& capabilities) {
    if (plan.dynamicConfiguration) return capabilities.minDaq == plan.lists.front().number;
    return std::all_of(plan.lists.begin(), plan.lists.end(),
                       [&](const xcp::DaqList& list) { return isStillThere(list, capabilities); });
}

}  // namespace

Result<MeasurementPlan> planMeasurement(SignalSource source, const std::vector<std::string>& signalTexts,
                                        const SessionConfig::Daq& daq, const xcp::ConnectInfo& connection,
                                        bool recorded) {
    const xcp::DaqCapabilities& capabilities = source.capabilities;
    const xcp::DaqPlanOptions options{connection.maxDto, connection.granularity(), daq.useTimestamps};
    const auto fitsAlone = [&](const ChosenSignal& signal) -> Result<void> {
        auto fits = xcp::checkSignal(daqSignal(signal), capabilities, options);
        if (fits.ok()) return fits;
        return Error{fits.error().code, signal.element.name + ": " + fits.error().text()};
    };
    const auto canMeasure = [&](const ChosenSignal& signal) -> Result<void> {
        if (auto fits = fitsAlone(signal); !fits.ok()) return fits;
        return recorded ? requireRecordable(signal.element) : Result<void>();
    };
    source.bareEvent = daq.defaultEvent;
    auto choice = chooseSignals(source, signalTexts, canMeasure);
    if (!choice.ok()) return choice.error();
    MeasurementPlan plan;
    plan.warnings = std::move(choice.value().warnings);
    plan.placedBy = std::move(choice.value().placedBy);
    std::vector<xcp::DaqSignal> signals;
    plan.planned.reserve(choice.value().chosen.size());  // names are borrowed from there
    for (ChosenSignal& chosen : choice.value().chosen) {
        if (!capabilities.dynamicConfiguration && !capabilities.lists.empty()) {
            if (auto fits = fitsAlone(chosen); !fits.ok()) return fits.error();
        }
        signals.push_back(daqSignal(chosen));
        plan.planned.push_back(plannedSignal(std::move(chosen)));
        signals.back().name = plan.planned.back().element.name;
    }
    if (signals.empty()) return Error{ErrorCode::invalidArgument, "no signals to measure"};

    auto packed = xcp::planDaq(signals, capabilities, options);
    if (!packed.ok()) return packed.error();
    plan.daq = std::move(packed).value();
    for (std::size_t i = 0; i < plan.planned.size(); ++i) {
        plan.planned[i].listIndex = plan.daq.signals[i].list;
        plan.planned[i].recordOffset = static_cast<std::uint32_t>(plan.daq.signals[i].offset);
    }
    return plan;
}

std::uint64_t periodNs(const xcp::DaqList& list, const xcp::DaqCapabilities& capabilities) {
    const xcp::EventChannel* event = capabilities.findEvent(list.eventChannel);
    if (event == nullptr || event->cycleNs <= 0) return 0;
    return static_cast<std::uint64_t>(event->cycleNs) * std::max<std::uint8_t>(list.prescaler, 1);
}

LoadInput loadInput(const xcp::DaqPlan& plan, const xcp::DaqCapabilities& capabilities) {
    LoadInput input;
    input.identificationType = static_cast<std::uint8_t>(plan.identification);
    input.timestampSize = plan.timestampSize;
    for (const xcp::DaqList& list : plan.lists) {
        const xcp::EventChannel* event = capabilities.findEvent(list.eventChannel);
        const std::int64_t cycleNs = event == nullptr ? 0 : std::max<std::int64_t>(event->cycleNs, 0);
        LoadList load{static_cast<std::uint64_t>(cycleNs), list.prescaler, list.timestamp, {}};
        for (const xcp::Odt& odt : list.odts)
            load.odtBytes.push_back(odt.payloadSize);
        input.lists.push_back(std::move(load));
    }
    return input;
}

std::uint64_t shortestPeriodNs(const xcp::DaqPlan& plan, const xcp::DaqCapabilities& capabilities) {
    std::uint64_t shortest = 0;
    for (const xcp::DaqList& list : plan.lists) {
        const std::uint64_t period = periodNs(list, capabilities);
        if (period > 0 && (shortest == 0 || period < shortest)) shortest = period;
    }
    return shortest;
}

Result<void> checkPlanFits(const xcp::DaqPlan& plan, const xcp::DaqCapabilities& capabilities,
                           const xcp::ConnectInfo& connection) {
    const auto differs = [](const std::string& what) {
        return Error{ErrorCode::protocolError, "the ECU came back with another " + what};
    };
    if (capabilities.dynamicConfiguration != plan.dynamicConfiguration) {
        return differs("DAQ configuration type");
    }
    if (capabilities.identification != plan.identification) return differs("identification field type");
    if (capabilities.overloadInPid != plan.overloadInPid) return differs("overload indication");
    if (!sameLists(plan, capabilities)) {
        return differs(plan.dynamicConfiguration ? "number of predefined DAQ lists" : "set of DAQ lists");
    }
    const bool timestampGone = plan.timestampSize != 0 && capabilities.timestampSize != plan.timestampSize;
    const bool timestampForced =
        plan.timestampSize == 0 && capabilities.timestampFixed && capabilities.timestampSize != 0;
    if (timestampGone || timestampForced) return differs("timestamp size");

    std::uint32_t largestDto = 0;
    std::uint32_t largestEntry = 0;
    for (const xcp::DaqList& list : plan.lists) {
        const bool known = capabilities.events.empty() ? list.eventChannel < capabilities.maxEventChannel
                                                       : capabilities.findEvent(list.eventChannel) != nullptr;
        if (!known) return differs("set of event channels");
        for (const xcp::Odt& odt : list.odts) {
            const bool first = &odt == &list.odts.front();
            largestDto =
                std::max<std::uint32_t>(largestDto, plan.identificationSize + odt.payloadSize +
                                                        (first && list.timestamp ? plan.timestampSize : 0U));
            for (const xcp::OdtEntry& entry : odt.entries) {
                if (list.predefined) continue;
                largestEntry = std::max<std::uint32_t>(largestEntry, entry.size);
                if (entry.size % capabilities.entryGranularity != 0) return differs("ODT entry granularity");
                if (entry.size % connection.granularity() != 0) return differs("address granularity");
            }
        }
    }
    if (largestDto > connection.maxDto) return differs("MAX_DTO");
    if (capabilities.maxEntrySize != 0 && largestEntry > capabilities.maxEntrySize) {
        return differs("maximum ODT entry size");
    }
    return {};
}

Result<void> requireRecordable(const MeasurementPlan& plan) {
    for (const PlannedSignal& signal : plan.planned) {
        if (auto able = requireRecordable(signal.element); !able.ok()) return able;
    }
    return {};
}

storage::RecordingInfo recordingInfo(const MeasurementPlan& plan, const xcp::DaqCapabilities& capabilities) {
    storage::RecordingInfo info;
    for (const xcp::DaqList& list : plan.daq.lists) {
        storage::GroupInfo group;
        const xcp::EventChannel* event = capabilities.findEvent(list.eventChannel);
        const bool named = event != nullptr && !event->name.empty();
        group.name = named ? event->name : "event " + std::to_string(list.eventChannel);
        if (several(plan.daq, list.eventChannel)) group.name += " (list " + std::to_string(list.number) + ")";
        group.recordSize = list.recordSize;
        group.cycleNs = static_cast<std::int64_t>(periodNs(list, capabilities));
        const bool stamped = plan.daq.timestampSize != 0 && list.timestamp;
        group.clock = stamped ? storage::GroupInfo::Clock::ecu : storage::GroupInfo::Clock::host;
        info.groups.push_back(std::move(group));
    }
    std::set<std::pair<std::size_t, std::string_view>> seen;
    for (const PlannedSignal& signal : plan.planned) {
        if (!seen.insert({signal.listIndex, signal.element.name}).second) continue;
        info.groups[signal.listIndex].signals.push_back(
            {signal.element, signal.description, signal.displayName, signal.recordOffset, true});
    }
    return info;
}

std::string foreignEventWarning(const MeasurementPlan& plan) {
    const PlannedSignal* first = nullptr;
    std::size_t count = 0;
    for (const PlannedSignal& signal : plan.planned) {
        if (!signal.isForeignEvent) continue;
        if (first == nullptr) first = &signal;
        ++count;
    }
    if (first == nullptr) return {};
    std::string text = "event " + std::to_string(first->event) +
                       " is not among those that the A2L names for '" + first->element.name + "'";
    if (count > 1) text += " (nor for " + std::to_string(count - 1) + " more signal(s))";
    return text + ", --event auto measures names without @EVENT in one of their own";
}

}  // namespace lm::session
