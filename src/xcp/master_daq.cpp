// DAQ configuration of the master: what the slave can do, the allocation of a plan, start and stop.
#include <algorithm>

#include <spdlog/spdlog.h>

#include "xcp/master.h"

namespace lm::xcp {

namespace {

constexpr std::size_t kProcessorInfoLength = 8;
constexpr std::size_t kResolutionInfoLength = 8;
constexpr std::size_t kEventInfoLength = 7;
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

/// Whether the slave's first PIDs give every list a range of its own below the PIDs that are no DTOs.
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

}  // namespace

Result<DaqCapabilities> Master::daqCapabilities() {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready.error();
    if (!connection_.offersDaq()) {
        return Error{.code = ErrorCode::unsupported, .message = "slave does not offer the DAQ resource"};
    }
    Exchange rules;
    rules.minimumLength = kProcessorInfoLength;
    const auto reply = transactLocked(buildPlain(Command::getDaqProcessorInfo), rules);
    if (!reply) return reply.error();
    if (reply.value().size() < kProcessorInfoLength) return shortDaqResponse(Command::getDaqProcessorInfo);

    DaqCapabilities capabilities;
    parseProcessorInfo(reply.value(), connection_.byteOrder(), capabilities);
    if (auto read = readResolutionLocked(capabilities); !read) return read.error();
    if (auto read = readEventsLocked(capabilities); !read) return read.error();
    return capabilities;
}

Result<void> Master::readResolutionLocked(DaqCapabilities& capabilities) {
    Exchange rules;
    rules.minimumLength = kResolutionInfoLength;
    const auto reply = transactLocked(buildPlain(Command::getDaqResolutionInfo), rules);
    if (!reply && reply.error().detail != kErrCmdUnknown) return reply.error();
    if (reply && reply.value().size() >= kResolutionInfoLength) {
        parseResolutionInfo(reply.value(), connection_.byteOrder(), capabilities);
        return {};
    }
    if (reply) spdlog::warn("GET_DAQ_RESOLUTION_INFO: the answer is too short, DTOs carry no timestamps");
    capabilities.entryGranularity = 1;
    capabilities.maxEntrySize = static_cast<std::uint8_t>(std::min(connection_.maxDto - 1, 255));
    capabilities.timestampSupported = false;
    return {};
}

Result<Packet> Master::eventInfoLocked(std::uint16_t channel) {
    Exchange rules;
    rules.minimumLength = kEventInfoLength;
    auto reply = transactLocked(buildGetDaqEventInfo(channel, connection_.byteOrder()), rules);
    if (reply && reply.value().size() < kEventInfoLength) return shortDaqResponse(Command::getDaqEventInfo);
    return reply;
}

Result<void> Master::readEventsLocked(DaqCapabilities& capabilities) {
    for (std::uint16_t channel = 0; channel < capabilities.maxEventChannel; ++channel) {
        const auto reply = eventInfoLocked(channel);
        // The command is optional: without it the number of channels is all there is to know.
        if (!reply && channel == 0 && reply.error().detail == kErrCmdUnknown) return {};
        if (!reply) return reply.error();
        EventChannel event = parseEventInfo(reply.value(), channel);
        auto name = eventNameLocked(channel, reply.value().bytes[3]);
        if (!name) return name.error();
        event.name = std::move(name).value();
        capabilities.events.push_back(std::move(event));
    }
    return {};
}

Result<std::string> Master::eventNameLocked(std::uint16_t channel, std::size_t length) {
    const std::size_t unit = connection_.granularity();
    const std::size_t elements = (length + unit - 1) / unit;
    std::vector<std::uint8_t> bytes;
    const auto readTo = [&](std::size_t end,
                            const std::function<Result<void>()>& beforeRepeat) -> Result<void> {
        for (std::size_t at = bytes.size() / unit; at < end; at = bytes.size() / unit) {
            const std::size_t count = std::min(end - at, elementsPerResponse());
            auto read = uploadBlockLocked(buildUpload(static_cast<std::uint8_t>(count)), beforeRepeat, bytes);
            if (!read) return read;
        }
        return {};
    };
    // Only the slave knows where the name lies: asking for the event again is what sets the MTA back to its
    // start.
    const auto beforeRepeat = [&]() -> Result<void> {
        if (auto reply = eventInfoLocked(channel); !reply) return reply.error();
        const std::size_t done = bytes.size() / unit;
        bytes.clear();
        return readTo(done, {});
    };
    if (auto read = readTo(elements, beforeRepeat); !read) return read.error();
    return std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
}

Result<std::vector<std::uint8_t>> Master::configureDaq(const DaqPlan& plan) {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready.error();
    if (auto allocated = allocateLocked(plan); !allocated) return allocated.error();
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        for (std::size_t odt = 0; odt < plan.lists[i].odts.size(); ++odt) {
            auto written =
                writeOdtLocked(plan.listNumber(i), static_cast<std::uint8_t>(odt), plan.lists[i].odts[odt]);
            if (!written) return written.error();
        }
    }
    return selectLocked(plan);
}

Result<void> Master::allocateLocked(const DaqPlan& plan) {
    const ByteOrder order = connection_.byteOrder();
    if (auto done = commandLocked(buildPlain(Command::freeDaq)); !done) return done;
    auto allocated = commandLocked(buildAllocDaq(static_cast<std::uint16_t>(plan.lists.size()), order));
    if (!allocated) return allocated;
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        const auto count = static_cast<std::uint8_t>(plan.lists[i].odts.size());
        if (auto done = commandLocked(buildAllocOdt(plan.listNumber(i), count, order)); !done) return done;
    }
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        for (std::size_t odt = 0; odt < plan.lists[i].odts.size(); ++odt) {
            const auto count = static_cast<std::uint8_t>(plan.lists[i].odts[odt].entries.size());
            const Packet command =
                buildAllocOdtEntry(plan.listNumber(i), static_cast<std::uint8_t>(odt), count, order);
            if (auto done = commandLocked(command); !done) return done;
        }
    }
    return {};
}

Result<void> Master::writeOdtLocked(std::uint16_t list, std::uint8_t number, const Odt& odt) {
    const ByteOrder order = connection_.byteOrder();
    const auto point = [&](std::size_t entry) {
        return commandLocked(buildSetDaqPtr(list, number, static_cast<std::uint8_t>(entry), order));
    };
    if (auto pointed = point(0); !pointed) return pointed;
    for (std::size_t entry = 0; entry < odt.entries.size(); ++entry) {
        const auto elements = static_cast<std::uint8_t>(odt.entries[entry].size / connection_.granularity());
        Exchange rules;
        // A WRITE_DAQ whose answer was lost has advanced the pointer.
        rules.beforeRepeat = [&point, entry] { return point(entry); };
        auto written = transactLocked(buildWriteDaq(elements, odt.entries[entry].address, order), rules);
        if (!written) return written.error();
    }
    return {};
}

Result<std::vector<std::uint8_t>> Master::selectLocked(const DaqPlan& plan) {
    const ByteOrder order = connection_.byteOrder();
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        const DaqList& list = plan.lists[i];
        const std::uint8_t mode = list.timestamp ? kListModeTimestamp : std::uint8_t{0};
        auto done = commandLocked(
            buildSetDaqListMode(mode, plan.listNumber(i), list.eventChannel, list.prescaler, order));
        if (!done) return done.error();
    }
    std::vector<std::uint8_t> told;
    std::vector<std::uint8_t> planned;
    selection_.clear();
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        selection_.push_back(buildStartStopDaqList(kSelectList, plan.listNumber(i), order));
        Exchange rules;
        rules.minimumLength = 2;  // with FIRST_PID
        const auto reply = transactLocked(selection_.back(), rules);
        if (!reply) return reply.error();
        if (reply.value().size() > 1) told.push_back(reply.value().bytes[1]);
        planned.push_back(plan.lists[i].odts.empty() ? std::uint8_t{0} : plan.lists[i].odts.front().pid);
    }
    const bool absolute = plan.identification == DaqIdentification::absoluteOdt;
    return absolute && told.size() == planned.size() && disjoint(plan, told) ? told : planned;
}

Result<void> Master::startDaq() {
    // A start whose answer was lost has used up the selection.
    Exchange rules;
    rules.beforeRepeat = [this]() -> Result<void> {
        for (const Packet& select : selection_) {
            if (auto done = commandLocked(select); !done) return done;
        }
        return {};
    };
    if (auto reply = transact(buildStartStopSynch(kStartSelected), rules); !reply) return reply.error();
    return {};
}

Result<void> Master::stopDaq() {
    if (auto reply = command(buildStartStopSynch(kStopAll), 1); !reply) return reply.error();
    return {};
}

Result<void> Master::stopDaqOnce() {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready;
    return onceLocked(buildStartStopSynch(kStopAll));
}

Result<void> Master::stopDaqWithoutWaiting() {
    const std::lock_guard lock(commandMutex_);
    if (auto ready = requireConnected(); !ready) return ready;
    return sendOnlyLocked(buildStartStopSynch(kStopAll));
}

}  // namespace lm::xcp
