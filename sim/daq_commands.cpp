#include "sim/daq_commands.h"

#include "sim/event_cycle.h"

namespace lm::sim {
namespace {

std::uint8_t toldTimestampSize(const Options& options) {
    return options.tells.timestampSize.value_or(options.timestampSize);
}

}  // namespace

DaqCommands::Refusal DaqCommands::execute(Packet packet, std::uint64_t ticks, Answer& answer) {
    switch (packet[0]) {
        case kFreeDaq:
        case kAllocDaq:
        case kAllocOdt:
        case kAllocOdtEntry:
            return allocate(packet, answer);
        case kClearDaqList:
        case kSetDaqPtr:
        case kWriteDaq:
        case kWriteDaqMultiple:
        case kSetDaqListMode:
            return configure(packet, answer);
        case kStartStopDaqList:
        case kStartStopSynch:
            return run(packet, answer);
        case kTransportLayerCmd:
            return identify(packet, answer);
        default:
            return tell(packet, ticks, answer);
    }
}

DaqCommands::Refusal DaqCommands::allocate(Packet packet, const Answer& answer) {
    switch (packet[0]) {
        case kFreeDaq:
            lists_.free();
            return std::nullopt;
        case kAllocDaq:
            return lists_.allocLists(answer.word(packet, 2));
        case kAllocOdt:
            return lists_.allocOdts(answer.word(packet, 2), packet[4]);
        default:
            return lists_.allocEntries(answer.word(packet, 2), packet[4], packet[5]);
    }
}

DaqCommands::Refusal DaqCommands::configure(Packet packet, const Answer& answer) {
    switch (packet[0]) {
        case kClearDaqList:
            return lists_.clear(answer.word(packet, 2));
        case kSetDaqPtr:
            return lists_.setPointer(answer.word(packet, 2), packet[4], packet[5]);
        case kWriteDaq:
            return lists_.writeEntry(packet[1], std::size_t{packet[2]} * options_.granularity, packet[3],
                                     answer.dword(packet, 4));
        case kWriteDaqMultiple:
            return writeMultiple(packet, answer);
        default:
            return lists_.setMode(answer.word(packet, 2),
                                  {packet[1], answer.word(packet, 4), packet[6], packet[7]});
    }
}

/// The entries before one that is refused stay written.
DaqCommands::Refusal DaqCommands::writeMultiple(Packet packet, const Answer& answer) {
    constexpr std::size_t kEntryBytes = 8;
    const std::size_t count = packet[1];
    if (count == 0 || 2 + count * kEntryBytes > options_.maxCto) return Err::outOfRange;
    if (packet.size() < 2 + count * kEntryBytes) return Err::cmdSyntax;
    for (std::size_t i = 0; i < count; ++i) {
        const Packet entry = packet.subspan(2 + i * kEntryBytes, kEntryBytes);
        const Refusal refusal = lists_.writeEntry(entry[0], std::size_t{entry[1]} * options_.granularity,
                                                  entry[6], answer.dword(entry, 2));
        if (refusal) return refusal;
    }
    return std::nullopt;
}

DaqCommands::Refusal DaqCommands::run(Packet packet, Answer& answer) {
    if (packet[0] == kStartStopSynch) return lists_.startStopSelected(packet[1]);
    const std::uint16_t list = answer.word(packet, 2);
    const Refusal refusal = lists_.startStop(list, packet[1]);
    if (refusal) return refusal;
    answer.begin(2)[1] =
        options_.sameFirstPid == SameFirstPid::told ? options_.firstPid : lists_.firstPid(list);
    return std::nullopt;
}

/// The CAN identifiers of the lists.
DaqCommands::Refusal DaqCommands::identify(Packet packet, Answer& answer) {
    const bool sets = packet[1] == kSetDaqId && options_.canListIdsVariable;
    if (!sets && packet[1] != kGetDaqId) return Err::cmdUnknown;
    if (packet.size() < (sets ? 8U : 4U)) return Err::cmdSyntax;
    const std::uint16_t list = answer.word(packet, 2);
    if (sets) return lists_.setCanId(list, answer.dword(packet, 4));
    const std::optional<std::uint32_t> id = lists_.canId(list);
    if (!id) return Err::outOfRange;
    answer.begin(8)[1] = options_.canListIdsVariable ? 0 : 1;
    answer.putDword(4, *id);
    return std::nullopt;
}

DaqCommands::Refusal DaqCommands::tell(Packet packet, std::uint64_t ticks, Answer& answer) {
    switch (packet[0]) {
        case kGetDaqClock:
            answer.begin(8);
            answer.putDword(4, static_cast<std::uint32_t>(ticks));
            return std::nullopt;
        case kGetDaqProcessorInfo:
            processorInfo(answer);
            return std::nullopt;
        case kGetDaqResolutionInfo:
            resolutionInfo(answer);
            return std::nullopt;
        case kGetDaqListInfo:
            return listInfo(answer.word(packet, 2), answer);
        case kGetDaqListMode:
            return listMode(answer.word(packet, 2), answer);
        case kReadDaq:
            return readEntry(answer);
        default:
            return eventInfo(answer.word(packet, 2), answer);
    }
}

void DaqCommands::processorInfo(Answer& answer) const {
    std::uint8_t* to = answer.begin(8);
    const bool topBit = options_.overload == OverloadIndication::topBit;
    const bool event = options_.overload == OverloadIndication::event;
    to[1] =
        static_cast<std::uint8_t>((options_.isStatic() ? 0 : 0x01) | (options_.prescaler ? 0x02 : 0) |
                                  (toldTimestampSize(options_) != 0 ? 0x10 : 0) |
                                  (options_.pidOff ? 0x20 : 0) | (topBit ? 0x40 : 0) | (event ? 0x80 : 0));
    answer.putWord(2, lists_.firstList() + std::size_t{lists_.count()});
    answer.putWord(4, kEventCount);
    to[6] = options_.reservedLists();
    to[7] = static_cast<std::uint8_t>(options_.identification << 6);
}

void DaqCommands::resolutionInfo(Answer& answer) const {
    std::uint8_t* to = answer.begin(8);
    to[1] = to[3] = options_.tells.granularity.value_or(options_.granularity);
    to[2] = static_cast<std::uint8_t>(options_.maxOdtEntrySize());
    const std::uint8_t size = toldTimestampSize(options_);
    if (size == 0) return;
    const unsigned unit = options_.tells.tickExponent.value_or(options_.tickExponent());
    to[5] = static_cast<std::uint8_t>(unit << 4 | (options_.timestampFixed ? 0x08 : 0) | size);
    answer.putWord(6, 1);
}

DaqCommands::Refusal DaqCommands::eventInfo(std::uint16_t event, Answer& answer) const {
    if (event >= kEventCount) return Err::outOfRange;
    const EventCycle cycle = eventCycle(options_, static_cast<std::uint8_t>(event));
    std::uint8_t* to = answer.begin(7);
    to[1] = 0x04;  // direction DAQ
    to[2] = 0xFF;  // any number of lists
    to[3] = static_cast<std::uint8_t>(catalog_.eventNames()[event].size());
    to[4] = cycle.count;
    to[5] = cycle.unit;
    return std::nullopt;
}

DaqCommands::Refusal DaqCommands::listInfo(std::uint16_t list, Answer& answer) const {
    const std::optional<DaqLists::Info> info = lists_.info(list);
    if (!info) return Err::outOfRange;
    std::uint8_t* to = answer.begin(6);
    to[1] = static_cast<std::uint8_t>((info->predefined ? 0x01 : 0) | (info->event ? 0x02 : 0) | 0x04);
    to[2] = info->maxOdts;
    to[3] = info->maxEntries;
    answer.putWord(4, info->event.value_or(0));
    return std::nullopt;
}

DaqCommands::Refusal DaqCommands::listMode(std::uint16_t list, Answer& answer) const {
    const std::optional<DaqLists::Mode> mode = lists_.mode(list);
    if (!mode) return Err::outOfRange;
    std::uint8_t* to = answer.begin(8);
    to[1] = mode->bits;
    answer.putWord(4, mode->event);
    to[6] = mode->prescaler;
    return std::nullopt;
}

DaqCommands::Refusal DaqCommands::readEntry(Answer& answer) {
    const std::variant<DaqLists::Entry, Err> read = lists_.readEntry();
    if (const Err* refusal = std::get_if<Err>(&read)) return *refusal;
    const auto& entry = std::get<DaqLists::Entry>(read);
    std::uint8_t* to = answer.begin(8);
    to[1] = 0xFF;  // no single bit
    to[2] = static_cast<std::uint8_t>(entry.size / options_.granularity);
    to[3] = entry.extension;
    answer.putDword(4, entry.address);
    return std::nullopt;
}

}  // namespace lm::sim
