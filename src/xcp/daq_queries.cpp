#include "xcp/daq_queries.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "core/log.h"
#include "core/time_unit.h"
#include "xcp/memory.h"
#include "xcp/optional_question.h"

namespace lm::xcp {

namespace {

using Turn = Connection::Turn;

constexpr std::size_t kProcessorInfoLength = 8;
constexpr std::size_t kResolutionInfoLength = 8;
constexpr std::size_t kEventInfoLength = 7;
constexpr std::int32_t kErrOutOfRange = 0x22;
constexpr std::int32_t kErrDaqConfig = 0x2A;

/// A DAQ information answer that is too short names its command first.
Error shortDaqResponse(Command command) {
    return {.code = ErrorCode::protocolError,
            .message = std::string(commandName(static_cast<std::uint8_t>(command))) + " response too short"};
}

void parseProcessorInfo(const Packet& reply, ByteOrder order, DaqCapabilities& capabilities) {
    const std::uint8_t properties = reply.bytes[1];
    capabilities.dynamicConfiguration = (properties & 0x01U) != 0;
    capabilities.prescalerSupported = (properties & 0x02U) != 0;
    capabilities.resumeSupported = (properties & 0x04U) != 0;
    capabilities.timestampSupported = (properties & 0x10U) != 0;
    capabilities.pidOffSupported = (properties & 0x20U) != 0;
    capabilities.overloadInPid = (properties & 0x40U) != 0;
    capabilities.overloadEvent = (properties & 0x80U) != 0;
    capabilities.maxDaq = readBytes<std::uint16_t>(reply.data() + 2, order);
    capabilities.maxEventChannel = readBytes<std::uint16_t>(reply.data() + 4, order);
    capabilities.minDaq = reply.bytes[6];
    capabilities.identification = static_cast<DaqIdentification>(reply.bytes[7] >> 6U);
    capabilities.addressExtensionType = static_cast<std::uint8_t>((reply.bytes[7] >> 4U) & 0x03U);
}

void parseResolutionInfo(const Packet& reply, ByteOrder order, DaqCapabilities& capabilities) {
    capabilities.entryGranularity = std::max<std::uint8_t>(reply.bytes[1], 1);
    capabilities.maxEntrySize = reply.bytes[2];
    const std::uint8_t mode = reply.bytes[5];
    const auto size = static_cast<std::uint8_t>(mode & 0x07U);
    const bool known = size == 1 || size == 2 || size == 4;
    capabilities.timestampSize = known ? size : std::uint8_t{0};
    if (!known) capabilities.timestampSupported = false;
    capabilities.timestampFixed = (mode & 0x08U) != 0;
    capabilities.tickNs = unitNs(readBytes<std::uint16_t>(reply.data() + 6, order), mode >> 4U);
}

/// Some old slaves tell the unit in the upper half of the byte.
unsigned eventUnit(std::uint8_t told) {
    constexpr unsigned kLargestUnit = 0x0C;
    return told > kLargestUnit && (told & 0x0FU) == 0 ? told >> 4U : told;
}

EventChannel parseEventInfo(const Packet& reply, std::uint16_t number) {
    EventChannel event;
    event.number = number;
    event.properties = reply.bytes[1];
    event.maxDaqList = reply.bytes[2];
    event.cycleNs = unitNs(reply.bytes[4], eventUnit(reply.bytes[5]));
    event.priority = reply.bytes[6];
    return event;
}

/// False: what is least is taken for what the slave does not tell.
Result<bool> readResolution(Turn& turn, DaqCapabilities& capabilities) {
    const auto reply = askOptional(turn, buildPlain(Command::getDaqResolutionInfo), kResolutionInfoLength);
    if (!reply) return reply.error();
    if (reply.value() && reply.value()->size() >= kResolutionInfoLength) {
        parseResolutionInfo(*reply.value(), turn.slave().byteOrder(), capabilities);
        return true;
    }
    if (reply.value())
        log::warn("GET_DAQ_RESOLUTION_INFO: the answer is too short, DTOs carry no timestamps");
    capabilities.entryGranularity = 1;
    capabilities.maxEntrySize = static_cast<std::uint8_t>(std::min(turn.slave().maxDto - 1, 255));
    capabilities.timestampSupported = false;
    return false;
}

/// Only the slave knows where the name lies: GET_DAQ_EVENT_INFO sets the MTA to its start. So after an answer
/// that was lost, all is asked for again; nothing then.
Result<std::optional<EventChannel>> tryEvent(Turn& turn, std::uint16_t channel, Repeats& repeats) {
    const ConnectInfo& slave = turn.slave();
    const auto info =
        turn.attempt(buildGetDaqEventInfo(channel, slave.byteOrder()), kEventInfoLength, repeats);
    if (!info) return info.error();
    if (!info.value()) return std::optional<EventChannel>{};
    if (info.value()->size() < kEventInfoLength) return shortDaqResponse(Command::getDaqEventInfo);

    EventChannel event = parseEventInfo(*info.value(), channel);
    const std::size_t length = info.value()->bytes[3];
    const std::size_t elements = (length + slave.granularity() - 1) / slave.granularity();
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = 0; at < elements;) {
        const std::size_t count = std::min(elements - at, Memory::elementsPerResponse(slave));
        const auto block = turn.attempt(buildUpload(static_cast<std::uint8_t>(count)),
                                        Memory::answerLength(count, slave), repeats);
        if (!block) return block.error();
        if (!block.value()) return std::optional<EventChannel>{};
        if (auto read = Memory::append(*block.value(), count, slave, bytes); !read) return read.error();
        at += count;
    }
    event.name.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
    return std::optional<EventChannel>(std::move(event));
}

/// Nothing when the slave does not know or never answers the question about the first channel.
Result<std::optional<EventChannel>> readEvent(Turn& turn, std::uint16_t channel) {
    const Silence silence(turn);
    for (Repeats repeats;;) {
        auto event = tryEvent(turn, channel, repeats);
        if (event && event.value()) return event;
        if (event) continue;
        const Error& error = event.error();
        const bool unknown = error.detail == kErrCmdUnknown || silence.means(error, repeats);
        if (!unknown || channel > 0) return error;
        return std::optional<EventChannel>{};
    }
}

/// False: the number of channels is all there is to know.
Result<bool> readEvents(Turn& turn, DaqCapabilities& capabilities) {
    for (std::uint16_t channel = 0; channel < capabilities.maxEventChannel; ++channel) {
        auto event = readEvent(turn, channel);
        if (!event) return event.error();
        if (!event.value()) return false;
        capabilities.events.push_back(*std::move(event).value());
    }
    return true;
}

Result<DaqListInfo> parseListInfo(const Packet& reply, std::uint16_t number, const Turn& turn,
                                  const DaqCapabilities& capabilities) {
    constexpr unsigned kPredefined = 0x01;
    constexpr unsigned kFixedEvent = 0x02;
    constexpr unsigned kDaq = 0x04;
    constexpr std::size_t kWithEvent = 6;
    const unsigned properties = reply.bytes[1];
    DaqListInfo list;
    list.number = number;
    list.predefined = (properties & kPredefined) != 0 || number < capabilities.minDaq;
    list.offersDaq = (properties & kDaq) != 0;
    list.maxOdt = reply.bytes[2];
    list.maxEntries = reply.bytes[3];
    if ((properties & kFixedEvent) == 0) return list;
    if (reply.size() < kWithEvent) return shortDaqResponse(Command::getDaqListInfo);
    list.fixedEvent = readBytes<std::uint16_t>(reply.data() + 4, turn.slave().byteOrder());
    return list;
}

/// The answer to READ_DAQ at this place. A READ_DAQ whose answer was lost has advanced the pointer. Silence
/// at the first question of all is that of a slave that does not know it; later a layout with a hole would
/// come of that.
Result<Packet> fetchEntry(Turn& turn, const Packet& pointer, bool isFirst) {
    constexpr std::size_t kWithoutCode = 7;
    Repeats repeats;
    const Silence silence(turn);
    for (;;) {
        auto answer = turn.attempt(buildPlain(Command::readDaq), kWithoutCode, repeats);
        if (answer && answer.value()) return *answer.value();
        if (!answer && isFirst && silence.means(answer.error(), repeats)) {
            Error unknown = answer.error();
            unknown.detail = kErrCmdUnknown;
            return unknown;
        }
        if (!answer) return answer.error();
        if (auto pointed = turn.perform(pointer); !pointed) return pointed.error();
    }
}

/// Nothing behind the last entry.
Result<std::optional<OdtEntry>> readEntry(Turn& turn, std::uint16_t list, std::uint8_t odt,
                                          std::uint8_t entry, bool isFirst) {
    constexpr std::uint8_t kWholeElement = 0xFF;  // as bit offset
    constexpr std::size_t kWithoutCode = 7;       // of slaves that leave the first byte of the answer out
    const ByteOrder order = turn.slave().byteOrder();
    const auto reply = fetchEntry(turn, buildSetDaqPtr(list, odt, entry, order), isFirst);
    if (!reply && (reply.error().detail == kErrOutOfRange || reply.error().detail == kErrDaqConfig))
        return std::optional<OdtEntry>{};
    if (!reply) return reply.error();
    if (reply.value().size() < kWithoutCode) return shortDaqResponse(Command::readDaq);
    const std::uint8_t* const fields = reply.value().data() + (reply.value().size() == kWithoutCode ? 0 : 1);
    if (fields[1] == 0) return std::optional<OdtEntry>{};
    OdtEntry found;
    found.size = static_cast<std::uint16_t>(fields[1] * turn.slave().granularity());
    found.address = {readBytes<std::uint32_t>(fields + 3, order), fields[2]};
    found.oneBit = fields[0] != kWholeElement;
    return std::optional<OdtEntry>(found);
}

Result<Odt> readOdt(Turn& turn, const DaqListInfo& list, std::uint8_t number, bool& readsAny) {
    Odt odt;
    odt.pid = number;
    if (auto pointed = turn.perform(buildSetDaqPtr(list.number, number, 0, turn.slave().byteOrder()));
        !pointed)
        return pointed.error();
    for (unsigned entry = 0; entry < list.maxEntries; ++entry) {
        auto found = readEntry(turn, list.number, number, static_cast<std::uint8_t>(entry), !readsAny);
        if (!found) return found.error();
        readsAny = true;
        if (!found.value()) break;
        OdtEntry& next = odt.entries.emplace_back(*found.value());
        next.offset = odt.payloadSize;
        odt.payloadSize = static_cast<std::uint16_t>(odt.payloadSize + next.size);
    }
    return odt;
}

/// What is known of READ_DAQ.
struct Reading {
    bool any = false;      ///< it was answered
    bool unknown = false;  ///< it never is
};

/// As far as the slave tells it.
Result<void> readLayout(Turn& turn, DaqListInfo& list, Reading& reading) {
    std::uint32_t recordSize = 0;
    for (unsigned number = 0; number < list.maxOdt && !reading.unknown; ++number) {
        auto odt = readOdt(turn, list, static_cast<std::uint8_t>(number), reading.any);
        if (!odt && odt.error().detail == Error::kNoDetail) return odt.error();
        if (!odt) log::info("DAQ list {}: {}", list.number, odt.error().text());
        reading.unknown = !odt && odt.error().detail == kErrCmdUnknown;
        if (!odt || odt.value().entries.empty()) return {};
        odt.value().recordOffset = recordSize;
        recordSize += odt.value().payloadSize;
        list.odts.push_back(std::move(odt).value());
    }
    return {};
}

/// Nothing behind the last list.
Result<std::optional<DaqListInfo>> readList(Turn& turn, std::uint16_t number,
                                            const DaqCapabilities& capabilities, bool& told,
                                            Reading& reading) {
    constexpr std::size_t kListInfoLength = 4;
    const auto reply =
        askOptional(turn, buildGetDaqListInfo(number, turn.slave().byteOrder()), kListInfoLength);
    const bool beyond = !reply && number > 0 && reply.error().detail == kErrOutOfRange;
    if (!reply && !beyond) return reply.error();
    told = beyond || reply.value().has_value();
    if (beyond || !told) return std::optional<DaqListInfo>{};
    if (reply.value()->size() < kListInfoLength) return shortDaqResponse(Command::getDaqListInfo);
    auto list = parseListInfo(*reply.value(), number, turn, capabilities);
    if (!list) return list.error();
    if (list.value().predefined) {
        if (auto read = readLayout(turn, list.value(), reading); !read) return read.error();
    }
    return std::optional<DaqListInfo>(std::move(list).value());
}

}  // namespace

Result<DaqParts> askDaqParts(Connection& connection, const DaqParts& wanted, DaqCapabilities& capabilities) {
    auto held = connection.turn();
    if (!held) return held.error();
    Turn& turn = held.value();
    if (!turn.slave().offersDaq()) {
        return Error{.code = ErrorCode::unsupported, .message = "slave does not offer the DAQ resource"};
    }
    DaqParts told = wanted;
    if (wanted.processor) {
        const auto reply =
            turn.transact(buildPlain(Command::getDaqProcessorInfo), {.minimumLength = kProcessorInfoLength});
        if (!reply) return reply.error();
        if (reply.value().size() < kProcessorInfoLength)
            return shortDaqResponse(Command::getDaqProcessorInfo);
        parseProcessorInfo(reply.value(), turn.slave().byteOrder(), capabilities);
    }
    if (wanted.resolution) {
        const auto read = readResolution(turn, capabilities);
        if (!read) return read.error();
        told.resolution = read.value();
    }
    if (wanted.events) {
        capabilities.events.clear();
        const auto read = readEvents(turn, capabilities);
        if (!read) return read.error();
        told.events = read.value();
    }
    return told;
}

Result<DaqParts> glanceAtDaq(Connection& connection, DaqCapabilities& capabilities) {
    DaqParts told{.processor = false, .resolution = false, .events = false};
    auto held = connection.turn();
    if (!held) return held.error();
    Turn& turn = held.value();
    const auto ask = [&](Command question, std::size_t length) -> Result<std::optional<Packet>> {
        auto answer = turn.askOnce(buildPlain(question), length);
        if (!answer && answer.error().detail != Error::kNoDetail) return std::optional(Packet{});
        return answer;
    };
    const auto processor = ask(Command::getDaqProcessorInfo, kProcessorInfoLength);
    if (!processor) return processor.error();
    if (!processor.value()) return told;
    const ByteOrder order = turn.slave().byteOrder();
    told.processor = processor.value()->size() >= kProcessorInfoLength;
    if (told.processor) parseProcessorInfo(*processor.value(), order, capabilities);
    const auto resolution = ask(Command::getDaqResolutionInfo, kResolutionInfoLength);
    if (!resolution) return resolution.error();
    told.resolution = resolution.value() && resolution.value()->size() >= kResolutionInfoLength;
    if (told.resolution) parseResolutionInfo(*resolution.value(), order, capabilities);
    return told;
}

Result<bool> askDaqLists(Connection& connection, DaqCapabilities& capabilities) {
    capabilities.lists.clear();
    auto held = connection.turn();
    if (!held) return held.error();
    const std::uint16_t count = capabilities.dynamicConfiguration ? capabilities.minDaq : capabilities.maxDaq;
    bool told = true;
    Reading reading;
    for (std::uint16_t number = 0; number < count; ++number) {
        auto list = readList(held.value(), number, capabilities, told, reading);
        if (!list) return list.error();
        if (!told) capabilities.lists.clear();
        if (!list.value()) break;
        capabilities.lists.push_back(*std::move(list).value());
    }
    return told;
}

Result<DaqCapabilities> readDaqCapabilities(Connection& connection) {
    DaqCapabilities capabilities;
    if (auto told = askDaqParts(connection, {}, capabilities); !told) return told.error();
    return capabilities;
}

}  // namespace lm::xcp
