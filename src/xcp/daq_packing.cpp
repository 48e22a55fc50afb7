#include "xcp/daq_packing.h"

#include <algorithm>
#include <numeric>

#include <spdlog/fmt/fmt.h>

namespace lm::xcp {
namespace {

constexpr std::size_t kMaxElementsPerEntry = 255;

}  // namespace

Result<DaqRoom> measureRoom(const DaqPlan& plan, const DaqCapabilities& capabilities,
                            const DaqPlanOptions& options) {
    if (options.maxDto <= plan.identificationSize + plan.timestampSize) {
        return invalidArgument("MAX_DTO too small for identification field and timestamp");
    }
    DaqRoom room;
    room.payload = static_cast<std::size_t>(options.maxDto - plan.identificationSize);
    room.firstPayload = room.payload - plan.timestampSize;
    room.largestEntry = room.payload;
    if (capabilities.maxEntrySize != 0) {
        room.largestEntry = std::min<std::size_t>(capabilities.maxEntrySize, room.payload);
    }
    room.addressUnit = std::max<std::size_t>(options.addressGranularity, 1);
    room.entryUnit = std::lcm(room.addressUnit, std::max<std::size_t>(capabilities.entryGranularity, 1));
    room.entryLimit = std::min(room.largestEntry, kMaxElementsPerEntry * room.addressUnit);
    return room;
}

Result<void> checkEntrySize(const DaqSignal& signal, const DaqRoom& room) {
    if (signal.size != 0 && signal.size <= room.entryLimit && signal.size % room.entryUnit == 0) return {};
    return invalidArgument(fmt::format("signal of {} bytes does not fit into an ODT entry (max {})",
                                       signal.size, room.largestEntry));
}

Result<void> checkEventExists(std::uint16_t event, const DaqCapabilities& capabilities) {
    const bool exists = capabilities.events.empty() ? event < capabilities.maxEventChannel
                                                    : capabilities.findEvent(event) != nullptr;
    if (exists) return {};
    return invalidArgument(fmt::format("event channel {} does not exist", event));
}

void SignalGroup::add(const DaqSignal& signal, std::size_t index) {
    if (entries.empty()) {
        eventChannel = signal.eventChannel;
        prescaler = std::max<std::uint8_t>(signal.prescaler, 1);
    }
    const auto [place, isNew] = known.try_emplace({signal.address, signal.size}, entries.size());
    if (isNew) entries.push_back({signal.address, signal.size});
    uses.emplace_back(index, place->second);
}

std::vector<std::size_t> SignalGroup::largestFirst() const {
    std::vector<std::size_t> order(entries.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [this](std::size_t a, std::size_t b) { return entries[a].size > entries[b].size; });
    return order;
}

std::optional<EntryPlace> placeEntry(std::vector<Odt>& odts, const SignalGroup::Entry& entry,
                                     const DaqRoom& room, const ListShape& shape) {
    std::size_t at = 0;
    for (;; ++at) {
        if (at == shape.odts) return std::nullopt;
        if (at == odts.size()) odts.emplace_back();
        const Odt& odt = odts[at];
        const std::size_t limit = at == 0 ? room.firstPayload : room.payload;
        if (odt.payloadSize + entry.size <= limit && odt.entries.size() < shape.entriesOfOdt) break;
    }
    Odt& odt = odts[at];
    odt.entries.push_back({entry.address, static_cast<std::uint16_t>(entry.size), odt.payloadSize});
    odt.payloadSize = static_cast<std::uint16_t>(odt.payloadSize + entry.size);
    return EntryPlace{at, odt.entries.size() - 1};
}

void layOutRecord(DaqList& list) {
    list.recordSize = 0;
    for (Odt& odt : list.odts) {
        odt.recordOffset = list.recordSize;
        list.recordSize += odt.payloadSize;
    }
}

Error firstOdtEmpty(std::uint16_t eventChannel, const DaqRoom& room) {
    Error error = invalidArgument(fmt::format(
        "first ODT of event {} is empty (signals too large next to the timestamp)", eventChannel));
    error.hint = fmt::format(
        "add a signal of at most {} byte(s) to event {}, or measure without timestamps (\"useTimestamps\": "
        "false "
        "under \"daq\" in the configuration), where the ECU can leave them out",
        room.firstPayload, eventChannel);
    return error;
}

}  // namespace lm::xcp
