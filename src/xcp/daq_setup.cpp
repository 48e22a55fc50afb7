#include "xcp/daq_setup.h"

#include <algorithm>
#include <span>

#include <spdlog/fmt/fmt.h>

namespace lm::xcp {

namespace {

constexpr std::uint8_t kListModeTimestamp = 0x10;
constexpr std::uint8_t kSelectList = 2;
constexpr std::uint8_t kStopAll = 0;
constexpr std::uint8_t kStartSelected = 1;

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
        commands.push_back(buildAllocOdt(plan.lists[i].number, count, order));
    }
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        for (std::size_t odt = 0; odt < plan.lists[i].odts.size(); ++odt) {
            const auto count = static_cast<std::uint8_t>(plan.lists[i].odts[odt].entries.size());
            commands.push_back(
                buildAllocOdtEntry(plan.lists[i].number, static_cast<std::uint8_t>(odt), count, order));
        }
    }
    return commands;
}

}  // namespace

Result<std::vector<std::uint8_t>> DaqSetup::configure(const DaqPlan& plan, FirstPids source,
                                                      DaqRefusal& refusal) {
    refusal = {};
    auto held = connection_.turn();
    if (!held) return held.error();
    Turn& turn = held.value();
    if (auto open = turn.unlockBefore(Resource::daq); !open) return open.error();
    auto ready = plan.dynamicConfiguration ? allocate(turn, plan) : clear(turn, plan, refusal);
    if (!ready) return ready.error();
    if (auto written = writeLists(turn, plan, refusal); !written) return written.error();
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

/// For lists that the slave has from the start. One that an earlier session left selected would start with
/// those of the plan, and one that it left running takes no mode. A slave in which none runs may refuse to
/// stop them; what it really minds it says at the next command.
Result<void> DaqSetup::clear(Turn& turn, const DaqPlan& plan, DaqRefusal& refusal) {
    const auto stopped = turn.transact(buildStopAll());
    if (!stopped && stopped.error().detail == Error::kNoDetail) return stopped.error();
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        if (plan.lists[i].predefined) continue;
        auto done = turn.perform(buildClearDaqList(plan.lists[i].number, turn.slave().byteOrder()));
        if (done) continue;
        refusal.list = i;
        return done;
    }
    return {};
}

Result<void> DaqSetup::writeLists(Turn& turn, const DaqPlan& plan, DaqRefusal& refusal) {
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        const DaqList& list = plan.lists[i];
        for (std::size_t odt = 0; odt < list.odts.size() && !list.predefined; ++odt) {
            auto written =
                writeOdt(turn, list.number, static_cast<std::uint8_t>(odt), list.odts[odt], refusal);
            if (written) continue;
            refusal.list = i;
            return written;
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
    const bool together = turn.mayWriteDaqMultiple() && withoutMultiple_ != turn.connectionNumber() &&
                          odt.entries.size() > 1 && mostDaqElements(turn.slave().maxCto) > 1;
    if (together) {
        const auto written = writeTogether(turn, odt);
        if (!written) return written.error();
        if (written.value()) return {};
        if (auto pointed = point(0); !pointed) return pointed;
    }
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

/// The ODT at the pointer. False when the slave refused or an answer was lost: the pointer stands somewhere,
/// and one entry after the other tells which of them is refused.
Result<bool> DaqSetup::writeTogether(Turn& turn, const Odt& odt) {
    const std::size_t most = mostDaqElements(turn.slave().maxCto);
    std::vector<DaqElement> elements;
    for (const OdtEntry& entry : odt.entries) {
        const auto size = static_cast<std::uint8_t>(entry.size / turn.slave().granularity());
        elements.push_back({entry.address, size});
    }
    Repeats repeats;
    for (std::span<const DaqElement> rest = elements; !rest.empty();) {
        const auto part = rest.first(std::min(most, rest.size()));
        const auto done = turn.attempt(buildWriteDaqMultiple(part, turn.slave().byteOrder()), 1, repeats);
        if (!done && done.error().detail == Error::kNoDetail) return done.error();
        if (done && done.value()) {
            rest = rest.subspan(part.size());
            continue;
        }
        // A slave that leaves it unanswered once would cost t1 at each ODT.
        withoutMultiple_ = turn.connectionNumber();
        return false;
    }
    return true;
}

Result<void> DaqSetup::setModes(Turn& turn, const DaqPlan& plan, DaqRefusal& refusal) {
    const ByteOrder order = turn.slave().byteOrder();
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        const DaqList& list = plan.lists[i];
        const std::uint8_t mode = list.timestamp ? kListModeTimestamp : std::uint8_t{0};
        auto done =
            turn.perform(buildSetDaqListMode(mode, list.number, list.eventChannel, list.prescaler, order));
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
        selection_.push_back(buildStartStopDaqList(kSelectList, plan.lists[i].number, order));
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
    const bool planned = plan.dynamicConfiguration && !told;  // then they are disjoint
    if (absolute && !planned && !disjoint(plan, firstPids)) return collision(firstPids);
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
        if (connection_.options().ignoreDaqRunningBit) {
            if (auto stopped = turn.perform(buildStopAll()); !stopped) return stopped;
        } else {
            const auto status =
                turn.transact(buildPlain(Command::getStatus), {.minimumLength = kStatusLength});
            if (!status) return status.error();
            if ((status.value().bytes[1] & kStatusDaqRunning) != 0) return {};
        }
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
