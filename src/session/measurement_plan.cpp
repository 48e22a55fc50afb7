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

xcp::DaqSignal daqSignal(const value::Element& element, std::uint16_t event) {
    return {element.address, static_cast<std::uint32_t>(element.size()), event, 1};
}

Result<void> requireRecordable(const value::Element& element) {
    if (!element.coding.hasBitOperation()) return {};
    return Error{
        ErrorCode::unsupported,
        element.name + ": a recording cannot say what its BIT_OPERATION does, measure it without recording"};
}

/// Period of a list's records in nanoseconds, 0 when its event is not cyclic.
std::uint64_t periodNs(const xcp::DaqList& list, const xcp::DaqCapabilities& capabilities) {
    const xcp::EventChannel* event = capabilities.findEvent(list.eventChannel);
    if (event == nullptr || event->cycleNs <= 0) return 0;
    return static_cast<std::uint64_t>(event->cycleNs) * std::max<std::uint8_t>(list.prescaler, 1);
}

}  // namespace

Result<MeasurementPlan> planMeasurement(SignalSource source, const std::vector<std::string>& signalTexts,
                                        const SessionConfig::Daq& daq, const xcp::ConnectInfo& connection,
                                        bool recorded) {
    const xcp::DaqCapabilities& capabilities = source.capabilities;
    const xcp::DaqPlanOptions options{connection.maxDto, connection.granularity(), daq.useTimestamps};
    const auto canMeasure = [&](const ChosenSignal& signal) -> Result<void> {
        const value::Element& element = signal.element;
        if (auto fits = xcp::checkSignal(daqSignal(element, signal.event), capabilities, options); !fits.ok())
            return Error{fits.error().code, element.name + ": " + fits.error().text()};
        return recorded ? requireRecordable(element) : Result<void>();
    };
    source.bareEvent = daq.defaultEvent;
    auto choice = chooseSignals(source, signalTexts, canMeasure);
    if (!choice.ok()) return choice.error();
    MeasurementPlan plan;
    plan.warnings = std::move(choice.value().warnings);
    plan.placedBy = std::move(choice.value().placedBy);
    std::vector<xcp::DaqSignal> signals;
    for (ChosenSignal& chosen : choice.value().chosen) {
        plan.planned.push_back(plannedSignal(std::move(chosen)));
        signals.push_back(daqSignal(plan.planned.back().element, plan.planned.back().event));
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
    if (!capabilities.dynamicConfiguration) return differs("DAQ configuration type");
    if (capabilities.identification != plan.identification) return differs("identification field type");
    if (capabilities.overloadInPid != plan.overloadInPid) return differs("overload indication");
    if (capabilities.minDaq != plan.firstListNumber) return differs("number of predefined DAQ lists");
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
            largestDto = std::max<std::uint32_t>(
                largestDto, plan.identificationSize + odt.payloadSize + (first ? plan.timestampSize : 0U));
            for (const xcp::OdtEntry& entry : odt.entries) {
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
        group.recordSize = list.recordSize;
        group.cycleNs = static_cast<std::int64_t>(periodNs(list, capabilities));
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
