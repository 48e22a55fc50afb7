#include "xcp/daq_plan.h"

#include <algorithm>
#include <map>
#include <numeric>

#include <spdlog/fmt/fmt.h>

namespace lm::xcp {

namespace {

constexpr std::size_t kMaxEntriesPerOdt = 255;
constexpr std::size_t kMaxElementsPerEntry = 255;
constexpr std::size_t kPids = 252;
constexpr std::size_t kPidsWithOverload = 124;

Error invalid(std::string message) {
    return {.code = ErrorCode::invalidArgument, .message = std::move(message)};
}

/// The sizes that bound every entry and ODT, in bytes.
struct Room {
    std::size_t payload = 0;
    std::size_t firstPayload = 0;
    std::size_t largestEntry = 0;  ///< as told to the user
    std::size_t entryUnit = 1;     ///< every entry is a multiple of it
    std::size_t entryLimit = 0;    ///< largest entry that WRITE_DAQ can name
};

/// The distinct values of one event channel.
struct Group {
    struct Entry {
        Address address;
        std::size_t size;
    };
    std::uint8_t prescaler = 1;
    std::vector<Entry> entries;
    std::vector<std::pair<std::size_t, std::size_t>> uses;  ///< signal index, entry index
    std::map<std::pair<Address, std::size_t>, std::size_t> known;
};

Result<Room> measureRoom(const DaqPlan& plan, const DaqCapabilities& capabilities,
                         const DaqPlanOptions& options) {
    if (options.maxDto <= plan.identificationSize + plan.timestampSize) {
        return invalid("MAX_DTO too small for identification field and timestamp");
    }
    Room room;
    room.payload = static_cast<std::size_t>(options.maxDto - plan.identificationSize);
    room.firstPayload = room.payload - plan.timestampSize;
    room.largestEntry = room.payload;
    if (capabilities.maxEntrySize != 0) {
        room.largestEntry = std::min<std::size_t>(capabilities.maxEntrySize, room.payload);
    }
    const std::size_t addressUnit = std::max<std::size_t>(options.addressGranularity, 1);
    room.entryUnit = std::lcm(addressUnit, std::max<std::size_t>(capabilities.entryGranularity, 1));
    room.entryLimit = std::min(room.largestEntry, kMaxElementsPerEntry * addressUnit);
    return room;
}

bool eventExists(const DaqCapabilities& capabilities, std::uint16_t event) {
    if (capabilities.events.empty()) return event < capabilities.maxEventChannel;
    return capabilities.findEvent(event) != nullptr;
}

Result<void> checkSignal(const DaqSignal& signal, const Room& room, const DaqCapabilities& capabilities) {
    if (signal.size == 0 || signal.size > room.entryLimit || signal.size % room.entryUnit != 0) {
        return invalid(fmt::format("signal of {} bytes does not fit into an ODT entry (max {})", signal.size,
                                   room.largestEntry));
    }
    if (!eventExists(capabilities, signal.eventChannel)) {
        return invalid(fmt::format("event channel {} does not exist", signal.eventChannel));
    }
    return {};
}

void addSignal(Group& group, const DaqSignal& signal, std::size_t index) {
    if (group.entries.empty()) group.prescaler = std::max<std::uint8_t>(signal.prescaler, 1);
    const auto [place, isNew] = group.known.try_emplace({signal.address, signal.size}, group.entries.size());
    if (isNew) group.entries.push_back({signal.address, signal.size});
    group.uses.emplace_back(index, place->second);
}

/// Where an entry went: ODT and position in it.
struct EntryPlace {
    std::size_t odt = 0;
    std::size_t entry = 0;
};

EntryPlace placeEntry(DaqList& list, const Group::Entry& entry, const Room& room) {
    std::size_t at = 0;
    for (;; ++at) {
        if (at == list.odts.size()) list.odts.emplace_back();
        const Odt& odt = list.odts[at];
        const std::size_t limit = at == 0 ? room.firstPayload : room.payload;
        if (odt.payloadSize + entry.size <= limit && odt.entries.size() < kMaxEntriesPerOdt) break;
    }
    Odt& odt = list.odts[at];
    odt.entries.push_back({entry.address, static_cast<std::uint16_t>(entry.size), odt.payloadSize});
    odt.payloadSize = static_cast<std::uint16_t>(odt.payloadSize + entry.size);
    return {at, odt.entries.size() - 1};
}

Result<void> packGroup(const Group& group, const Room& room, DaqPlan& plan) {
    DaqList& list = plan.lists.back();
    std::vector<std::size_t> order(group.entries.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&group](std::size_t a, std::size_t b) {
        return group.entries[a].size > group.entries[b].size;
    });

    std::vector<EntryPlace> places(group.entries.size());
    for (const std::size_t index : order) {
        places[index] = placeEntry(list, group.entries[index], room);
    }
    if (list.odts.front().entries.empty()) {
        return invalid(fmt::format("first ODT of event {} is empty (signals too large next to the timestamp)",
                                   list.eventChannel));
    }
    for (Odt& odt : list.odts) {
        odt.recordOffset = list.recordSize;
        list.recordSize += odt.payloadSize;
    }
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
    if (most > limit) return invalid(fmt::format("{} ODTs exceed the {} available PIDs", most, limit));
    return {};
}

Result<void> checkListNumbers(const DaqPlan& plan) {
    const std::size_t limit = plan.identification == DaqIdentification::relativeByte ? 0xFF : 0xFFFF;
    const std::size_t last = std::size_t{plan.firstListNumber} + plan.lists.size() - 1;
    if (plan.lists.empty() || last <= limit) return {};
    return invalid(
        fmt::format("DAQ list {} exceeds {}, the largest number in the identification field", last, limit));
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

std::uint16_t DaqPlan::listNumber(std::size_t index) const {
    return static_cast<std::uint16_t>(firstListNumber + index);
}

namespace {

/// Without lists.
Result<DaqPlan> beginPlan(const DaqCapabilities& capabilities, const DaqPlanOptions& options) {
    if (!capabilities.dynamicConfiguration) {
        return Error{.code = ErrorCode::unsupported, .message = "static DAQ configuration is not supported"};
    }
    DaqPlan plan;
    plan.identification = capabilities.identification;
    plan.identificationSize = identificationSize(capabilities.identification);
    plan.firstListNumber = capabilities.minDaq;
    plan.overloadInPid = capabilities.overloadInPid;
    if (capabilities.timestampFixed || (capabilities.timestampSupported && options.useTimestamps)) {
        plan.timestampSize = capabilities.timestampSize;
    }
    return plan;
}

}  // namespace

Result<void> checkSignal(const DaqSignal& signal, const DaqCapabilities& capabilities,
                         const DaqPlanOptions& options) {
    const Result<DaqPlan> plan = beginPlan(capabilities, options);
    if (!plan) return plan.error();
    const Result<Room> room = measureRoom(plan.value(), capabilities, options);
    if (!room) return room.error();
    return checkSignal(signal, room.value(), capabilities);
}

Result<DaqPlan> planDaq(std::span<const DaqSignal> signals, const DaqCapabilities& capabilities,
                        const DaqPlanOptions& options) {
    auto begun = beginPlan(capabilities, options);
    if (!begun) return begun;
    DaqPlan plan = std::move(begun).value();
    const Result<Room> room = measureRoom(plan, capabilities, options);
    if (!room) return room.error();

    std::map<std::uint16_t, Group> groups;
    for (std::size_t i = 0; i < signals.size(); ++i) {
        if (auto checked = checkSignal(signals[i], room.value(), capabilities); !checked)
            return checked.error();
        addSignal(groups[signals[i].eventChannel], signals[i], i);
    }

    plan.signals.resize(signals.size());
    for (const auto& group : groups) {
        DaqList& list = plan.lists.emplace_back();
        list.eventChannel = group.first;
        list.prescaler = group.second.prescaler;
        list.timestamp = plan.timestampSize != 0;
        if (auto packed = packGroup(group.second, room.value(), plan); !packed) return packed.error();
    }
    if (auto numbered = numberOdts(plan); !numbered) return numbered.error();
    if (auto checked = checkListNumbers(plan); !checked) return checked.error();
    return plan;
}

}  // namespace lm::xcp
