#include "xcp/daq_setup.h"

#include <algorithm>

#include <spdlog/fmt/fmt.h>
#include <spdlog/spdlog.h>

#include "xcp/memory.h"

namespace lm::xcp {

namespace {

constexpr std::size_t kProcessorInfoLength = 8;
constexpr std::size_t kResolutionInfoLength = 8;
constexpr std::size_t kEventInfoLength = 7;
constexpr std::size_t kStatusLength = 6;
constexpr std::uint8_t kListModeTimestamp = 0x10;
constexpr std::uint8_t kSelectList = 2;
constexpr std::uint8_t kStopAll = 0;
constexpr std::uint8_t kStartSelected = 1;

/// A DAQ information answer that is too short names its command first.
Error shortDaqResponse(Command command) {
    return {.code = ErrorCode::protocolError,
            .message = std::string(commandName(static_cast<std::uint8_t>(command))) + " response too short"};
}

/// count x 10^unit nanoseconds; 0 for a unit above 1 s.
std::int64_t unitNs(std::uint32_t count, unsigned unit) {
    if (unit > 9) return 0;
    std::int64_t result = count;
    for (unsigned i = 0; i < unit; ++i) {
        result *= 10;
    }
    return result;
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

Error collision(const std::vector<std::uint8_t>& firstPids) {
    return {.code = ErrorCode::protocolError,
            .message = fmt::format(
                "START_STOP_DAQ_LIST: the ECU's first PIDs ({}) give DTOs that cannot be told apart; "
                "`\"firstPid\": \"plan\"` under \"daq\" in the configuration goes by the order of the "
                "lists instead",
                fmt::join(firstPids, ", "))};
}

/// Whether these first PIDs give every list a range of its own below the PIDs that are no DTOs.
bool disjoint(const DaqPlan& plan, const std::vector<std::uint8_t>& firstPids) {
    const std::size_t limit = plan.overloadInPid ? 0x7CU : kPidService;
    std::vector<bool> taken(limit, false);
    for (std::size_t i = 0; i < firstPids.size(); ++i) {
        for (std::size_t odt = 0; odt < plan.lists[i].odts.size(); ++odt) {
            const std::size_t pid = firstPids[i] + odt;
            if (pid >= limit || taken[pid]) return false;
            taken[pid] = true;
        }
    }
    return true;
}

/// The commands that allocate a plan.
std::vector<Packet> allocation(const DaqPlan& plan, ByteOrder order) {
    std::vector<Packet> commands = {buildPlain(Command::freeDaq),
                                    buildAllocDaq(static_cast<std::uint16_t>(plan.lists.size()), order)};
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        const auto count = static_cast<std::uint8_t>(plan.lists[i].odts.size());
        commands.push_back(buildAllocOdt(plan.listNumber(i), count, order));
    }
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        for (std::size_t odt = 0; odt < plan.lists[i].odts.size(); ++odt) {
            const auto count = static_cast<std::uint8_t>(plan.lists[i].odts[odt].entries.size());
            commands.push_back(
                buildAllocOdtEntry(plan.listNumber(i), static_cast<std::uint8_t>(odt), count, order));
        }
    }
    return commands;
}

}  // namespace

Result<DaqCapabilities> DaqSetup::capabilities() {
    auto held = connection_.turn();
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

Result<void> DaqSetup::readResolution(Turn& turn, DaqCapabilities& capabilities) {
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

Result<void> DaqSetup::readEvents(Turn& turn, DaqCapabilities& capabilities) {
    for (std::uint16_t channel = 0; channel < capabilities.maxEventChannel; ++channel) {
        auto event = readEvent(turn, channel);
        // The command is optional: without it the number of channels is all there is to know.
        if (!event && channel == 0 && event.error().detail == kErrCmdUnknown) return {};
        if (!event) return event.error();
        capabilities.events.push_back(std::move(event).value());
    }
    return {};
}

Result<EventChannel> DaqSetup::readEvent(Turn& turn, std::uint16_t channel) {
    for (Repeats repeats;;) {
        auto event = tryEvent(turn, channel, repeats);
        if (!event) return event.error();
        if (event.value()) return *std::move(event).value();
    }
}

/// Only the slave knows where the name lies: GET_DAQ_EVENT_INFO sets the MTA to its start. So after an answer
/// that was lost, all is asked for again; nothing then.
Result<std::optional<EventChannel>> DaqSetup::tryEvent(Turn& turn, std::uint16_t channel, Repeats& repeats) {
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

Result<std::vector<std::uint8_t>> DaqSetup::configure(const DaqPlan& plan, FirstPids source,
                                                      DaqRefusal& refusal) {
    refusal = {};
    auto held = connection_.turn();
    if (!held) return held.error();
    Turn& turn = held.value();
    if (auto allocated = allocate(turn, plan); !allocated) return allocated.error();
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        for (std::size_t odt = 0; odt < plan.lists[i].odts.size(); ++odt) {
            auto written = writeOdt(turn, plan.listNumber(i), static_cast<std::uint8_t>(odt),
                                    plan.lists[i].odts[odt], refusal);
            if (written) continue;
            refusal.list = i;
            return written.error();
        }
    }
    if (auto set = setModes(turn, plan, refusal); !set) return set.error();
    return select(turn, plan, source);
}

/// An allocation whose answer was lost may have been carried out, and would be refused or made twice: all
/// begins again at FREE_DAQ. Getting further than ever before renews the repeats.
Result<void> DaqSetup::allocate(Turn& turn, const DaqPlan& plan) {
    const auto commands = allocation(plan, turn.slave().byteOrder());
    Repeats repeats;
    std::size_t furthest = 0;
    for (std::size_t at = 0; at < commands.size();) {
        const auto done = turn.attempt(commands[at], 1, repeats);
        if (!done) return done.error();
        at = done.value() ? at + 1 : 0;
        if (at > furthest) {
            furthest = at;
            repeats = {};
        }
    }
    return {};
}

Result<void> DaqSetup::writeOdt(Turn& turn, std::uint16_t list, std::uint8_t number, const Odt& odt,
                                DaqRefusal& refusal) {
    const ByteOrder order = turn.slave().byteOrder();
    const auto point = [&](std::size_t entry) {
        return turn.perform(buildSetDaqPtr(list, number, static_cast<std::uint8_t>(entry), order));
    };
    if (auto pointed = point(0); !pointed) return pointed;
    for (std::size_t entry = 0; entry < odt.entries.size(); ++entry) {
        const auto elements = static_cast<std::uint8_t>(odt.entries[entry].size / turn.slave().granularity());
        // A WRITE_DAQ whose answer was lost has advanced the pointer.
        const Exchange rules{.beforeRepeat = [&point, entry] { return point(entry); }};
        auto written = turn.transact(buildWriteDaq(elements, odt.entries[entry].address, order), rules);
        if (written) continue;
        refusal.offset = odt.recordOffset + odt.entries[entry].offset;
        return written.error();
    }
    return {};
}

Result<void> DaqSetup::setModes(Turn& turn, const DaqPlan& plan, DaqRefusal& refusal) {
    const ByteOrder order = turn.slave().byteOrder();
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        const DaqList& list = plan.lists[i];
        const std::uint8_t mode = list.timestamp ? kListModeTimestamp : std::uint8_t{0};
        auto done = turn.perform(
            buildSetDaqListMode(mode, plan.listNumber(i), list.eventChannel, list.prescaler, order));
        if (done) continue;
        refusal.list = i;
        return done;
    }
    return {};
}

Result<std::vector<std::uint8_t>> DaqSetup::select(Turn& turn, const DaqPlan& plan, FirstPids source) {
    const ByteOrder order = turn.slave().byteOrder();
    std::vector<std::uint8_t> firstPids;
    bool told = false;
    selection_.clear();
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        selection_.push_back(buildStartStopDaqList(kSelectList, plan.listNumber(i), order));
        const auto reply = turn.transact(selection_.back(), {.minimumLength = 2});  // with FIRST_PID
        if (!reply) return reply.error();
        const bool here = reply.value().size() > 1 && source == FirstPids::told;
        const auto& odts = plan.lists[i].odts;
        firstPids.push_back(here           ? reply.value().bytes[1]
                            : odts.empty() ? std::uint8_t{0}
                                           : odts.front().pid);
        told = told || here;
    }
    const bool absolute = plan.identification == DaqIdentification::absoluteOdt;
    if (absolute && told && !disjoint(plan, firstPids)) return collision(firstPids);
    return firstPids;
}

Result<void> DaqSetup::start() {
    auto held = connection_.turn();
    if (!held) return held.error();
    Turn& turn = held.value();
    const Packet command = buildStartStopSynch(kStartSelected);
    for (Repeats repeats;;) {
        const auto started = turn.attempt(command, 1, repeats);
        if (!started) return started.error();
        if (started.value()) return {};
        // Its answer was lost, or the command: of a slave that runs the lists the selection is used up, and
        // some refuse to select a list that runs.
        const auto status = turn.transact(buildPlain(Command::getStatus), {.minimumLength = kStatusLength});
        if (!status) return status.error();
        if ((status.value().bytes[1] & kStatusDaqRunning) != 0) return {};
        for (const Packet& select : selection_) {
            if (auto done = turn.perform(select); !done) return done;
        }
    }
}

Result<void> DaqSetup::stop() {
    auto turn = connection_.turn();
    if (!turn) return turn.error();
    return turn.value().perform(buildStopAll());
}

Packet buildStopAll() {
    return buildStartStopSynch(kStopAll);
}

}  // namespace lm::xcp
