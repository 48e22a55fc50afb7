#include "xcp/daq_plan.h"

#include <algorithm>
#include <map>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "xcp/daq_packing.h"
#include "xcp/static_daq_plan.h"

namespace lm::xcp {

namespace {

constexpr std::size_t kPids = 252;
constexpr std::size_t kPidsWithOverload = 124;

/// The list of an event channel of a slave with dynamic ones.
Result<void> packGroup(const SignalGroup& group, const DaqRoom& room, DaqPlan& plan) {
    DaqList& list = plan.lists.back();
    std::vector<EntryPlace> places(group.entries.size());
    for (const std::size_t index : group.largestFirst())
        places[index] = *placeEntry(list.odts, group.entries[index], room, {});
    if (list.odts.front().entries.empty()) return firstOdtEmpty(list.eventChannel, room);
    layOutRecord(list);
    for (const auto& use : group.uses) {
        const EntryPlace& place = places[use.second];
        const Odt& odt = list.odts[place.odt];
        plan.signals[use.first] = {plan.lists.size() - 1, odt.recordOffset + odt.entries[place.entry].offset};
    }
    return {};
}

Result<void> numberOdts(DaqPlan& plan) {
    const bool absolute = plan.identification == DaqIdentification::absoluteOdt;
    const std::size_t limit = plan.overloadInPid ? kPidsWithOverload : kPids;
    std::size_t next = 0;
    std::size_t most = 0;
    for (DaqList& list : plan.lists) {
        if (!absolute) next = 0;
        for (Odt& odt : list.odts) {
            odt.pid = static_cast<std::uint8_t>(next++);
        }
        most = std::max(most, next);
    }
    if (most > limit)
        return invalidArgument(fmt::format("{} ODTs exceed the {} available PIDs", most, limit));
    return {};
}

Result<void> checkListNumbers(const DaqPlan& plan) {
    const std::size_t limit = plan.identification == DaqIdentification::relativeByte ? 0xFF : 0xFFFF;
    const std::size_t last =
        plan.lists.empty() ? 0 : std::size_t{plan.lists.front().number} + plan.lists.size() - 1;
    if (last <= limit) return {};
    return invalidArgument(
        fmt::format("DAQ list {} exceeds {}, the largest number in the identification field", last, limit));
}

Result<void> planDynamicLists(const std::vector<SignalGroup>& groups, const DaqRoom& room,
                              const DaqCapabilities& capabilities, DaqPlan& plan) {
    for (const SignalGroup& group : groups) {
        DaqList& list = plan.lists.emplace_back();
        list.number = static_cast<std::uint16_t>(capabilities.minDaq + plan.lists.size() - 1);
        list.eventChannel = group.eventChannel;
        list.prescaler = group.prescaler;
        list.timestamp = plan.timestampSize != 0;
        if (auto packed = packGroup(group, room, plan); !packed) return packed;
    }
    if (auto numbered = numberOdts(plan); !numbered) return numbered;
    return checkListNumbers(plan);
}

/// Without lists.
DaqPlan beginPlan(const DaqCapabilities& capabilities, const DaqPlanOptions& options) {
    DaqPlan plan;
    plan.identification = capabilities.identification;
    plan.identificationSize = identificationSize(capabilities.identification);
    plan.dynamicConfiguration = capabilities.dynamicConfiguration;
    plan.overloadInPid = capabilities.overloadInPid;
    if (capabilities.timestampFixed || (capabilities.timestampSupported && options.useTimestamps)) {
        plan.timestampSize = capabilities.timestampSize;
    }
    return plan;
}

Result<void> checkSignal(const DaqSignal& signal, const DaqRoom& room, const DaqCapabilities& capabilities) {
    if (!capabilities.dynamicConfiguration) return checkStaticSignal(signal, room, capabilities);
    if (auto sized = checkEntrySize(signal, room); !sized) return sized;
    return checkEventExists(signal.eventChannel, capabilities);
}

}  // namespace

std::uint8_t identificationSize(DaqIdentification type) {
    return type == DaqIdentification::absoluteOdt
               ? 1
               : static_cast<std::uint8_t>(static_cast<unsigned>(type) + 1U);
}

const EventChannel* DaqCapabilities::findEvent(std::uint16_t number) const {
    // Gathered channels stand at the index of their number.
    if (number < events.size() && events[number].number == number) return &events[number];
    const auto found = std::find_if(events.begin(), events.end(),
                                    [number](const EventChannel& event) { return event.number == number; });
    return found == events.end() ? nullptr : &*found;
}

Result<void> checkSignal(const DaqSignal& signal, const DaqCapabilities& capabilities,
                         const DaqPlanOptions& options) {
    const Result<DaqRoom> room = measureRoom(beginPlan(capabilities, options), capabilities, options);
    if (!room) return room.error();
    return checkSignal(signal, room.value(), capabilities);
}

Result<DaqPlan> planDaq(std::span<const DaqSignal> signals, const DaqCapabilities& capabilities,
                        const DaqPlanOptions& options) {
    DaqPlan plan = beginPlan(capabilities, options);
    const Result<DaqRoom> room = measureRoom(plan, capabilities, options);
    if (!room) return room.error();

    std::map<std::uint16_t, SignalGroup> byEvent;
    for (std::size_t i = 0; i < signals.size(); ++i) {
        if (auto checked = checkSignal(signals[i], room.value(), capabilities); !checked)
            return checked.error();
        byEvent[signals[i].eventChannel].add(signals[i], i);
    }
    std::vector<SignalGroup> groups;
    groups.reserve(byEvent.size());
    for (auto& [event, group] : byEvent)
        groups.push_back(std::move(group));

    plan.signals.resize(signals.size());
    auto planned = capabilities.dynamicConfiguration
                       ? planDynamicLists(groups, room.value(), capabilities, plan)
                       : planStaticLists(signals, groups, room.value(), capabilities, plan);
    if (!planned) return planned.error();
    return plan;
}

}  // namespace lm::xcp
