#include "xcp/daq_queries.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include <spdlog/spdlog.h>

#include "core/time_unit.h"
#include "xcp/memory.h"

namespace lm::xcp {

namespace {

using Turn = Connection::Turn;

constexpr std::size_t kProcessorInfoLength = 8;
constexpr std::size_t kResolutionInfoLength = 8;
constexpr std::size_t kEventInfoLength = 7;

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

EventChannel parseEventInfo(const Packet& reply, std::uint16_t number) {
    EventChannel event;
    event.number = number;
    event.properties = reply.bytes[1];
    event.maxDaqList = reply.bytes[2];
    event.cycleNs = unitNs(reply.bytes[4], reply.bytes[5]);
    event.priority = reply.bytes[6];
    return event;
}

Result<void> readResolution(Turn& turn, DaqCapabilities& capabilities) {
    const auto reply =
        turn.transact(buildPlain(Command::getDaqResolutionInfo), {.minimumLength = kResolutionInfoLength});
    if (!reply && reply.error().detail != kErrCmdUnknown) return reply.error();
    if (reply && reply.value().size() >= kResolutionInfoLength) {
        parseResolutionInfo(reply.value(), turn.slave().byteOrder(), capabilities);
        return {};
    }
    if (reply) spdlog::warn("GET_DAQ_RESOLUTION_INFO: the answer is too short, DTOs carry no timestamps");
    capabilities.entryGranularity = 1;
    capabilities.maxEntrySize = static_cast<std::uint8_t>(std::min(turn.slave().maxDto - 1, 255));
    capabilities.timestampSupported = false;
    return {};
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

Result<EventChannel> readEvent(Turn& turn, std::uint16_t channel) {
    for (Repeats repeats;;) {
        auto event = tryEvent(turn, channel, repeats);
        if (!event) return event.error();
        if (event.value()) return *std::move(event).value();
    }
}

Result<void> readEvents(Turn& turn, DaqCapabilities& capabilities) {
    for (std::uint16_t channel = 0; channel < capabilities.maxEventChannel; ++channel) {
        auto event = readEvent(turn, channel);
        // The command is optional: without it the number of channels is all there is to know.
        if (!event && channel == 0 && event.error().detail == kErrCmdUnknown) return {};
        if (!event) return event.error();
        capabilities.events.push_back(std::move(event).value());
    }
    return {};
}

}  // namespace

Result<DaqCapabilities> readDaqCapabilities(Connection& connection) {
    auto held = connection.turn();
    if (!held) return held.error();
    Turn& turn = held.value();
    if (!turn.slave().offersDaq()) {
        return Error{.code = ErrorCode::unsupported, .message = "slave does not offer the DAQ resource"};
    }
    const auto reply =
        turn.transact(buildPlain(Command::getDaqProcessorInfo), {.minimumLength = kProcessorInfoLength});
    if (!reply) return reply.error();
    if (reply.value().size() < kProcessorInfoLength) return shortDaqResponse(Command::getDaqProcessorInfo);

    DaqCapabilities capabilities;
    parseProcessorInfo(reply.value(), turn.slave().byteOrder(), capabilities);
    if (auto read = readResolution(turn, capabilities); !read) return read.error();
    if (auto read = readEvents(turn, capabilities); !read) return read.error();
    return capabilities;
}

}  // namespace lm::xcp
