#include "xcp/static_daq_plan.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include <spdlog/fmt/fmt.h>
#include <spdlog/fmt/ranges.h>

#include "xcp/static_list_search.h"

namespace lm::xcp {
namespace {

/// Where an entry of a group travels.
struct Carried {
    std::size_t list = 0;  ///< into DaqCapabilities::lists
    std::size_t odt = 0;
    std::size_t offset = 0;  ///< in the ODT's payload
};

/// What a predefined list sends, offsets and sizes counted anew; none when the master cannot take it.
std::vector<Odt> layoutOf(const DaqListInfo& list, const DaqRoom& room, const DaqCapabilities& capabilities) {
    std::vector<Odt> odts = list.odts;
    while (!odts.empty() && odts.back().entries.empty())
        odts.pop_back();
    for (Odt& odt : odts) {
        std::size_t size = 0;
        for (OdtEntry& entry : odt.entries) {
            entry.offset = static_cast<std::uint16_t>(size);
            size += entry.size;
        }
        // An ODT that is not sent in between would look lost each time.
        const bool stamped = capabilities.timestampFixed && &odt == &odts.front();
        if (odt.entries.empty() || size > (stamped ? room.firstPayload : room.payload)) return {};
        odt.payloadSize = static_cast<std::uint16_t>(size);
    }
    return odts;
}

std::optional<Carried> findIn(const std::vector<Odt>& odts, std::size_t list,
                              const SignalGroup::Entry& wanted, const DaqRoom& room) {
    for (std::size_t odt = 0; odt < odts.size(); ++odt) {
        for (const OdtEntry& entry : odts[odt].entries) {
            if (entry.oneBit || entry.address.extension != wanted.address.extension) continue;
            if (wanted.address.address < entry.address.address) continue;
            const std::size_t inside =
                (std::size_t{wanted.address.address} - entry.address.address) * room.addressUnit;
            if (inside + wanted.size <= entry.size) return Carried{list, odt, entry.offset + inside};
        }
    }
    return std::nullopt;
}

/// Chooses the lists, first for all groups together, then one list after the other for the plan.
class StaticPlanner {
  public:
    StaticPlanner(std::span<const DaqSignal> signals, const std::vector<SignalGroup>& groups,
                  const DaqRoom& room, const DaqCapabilities& capabilities, DaqPlan& plan)
        : signals_(signals), groups_(groups), room_(room), capabilities_(capabilities), plan_(plan) {
        for (const SignalGroup& group : groups) {
            wanted_.push_back({&group, group.largestFirst()});
            carried_.emplace_back(group.entries.size());
        }
    }

    Result<void> run() {
        StaticListSearch search(capabilities_, room_, plan_.timestampSize != 0);
        packed_ = search.run(wanted_);
        for (std::size_t i = 0; i < groups_.size() && !complete(); ++i)
            if (usePredefined(i)) packed_ = search.run(wanted_);
        for (std::size_t i = 0; i < groups_.size(); ++i)
            notePacked(i);
        if (!complete()) return refusal();
        for (std::size_t i = 0; i < groups_.size(); ++i)
            addLists(i);
        return {};
    }

  private:
    bool complete() const {
        return std::all_of(packed_.begin(), packed_.end(), [](const PackedLists& p) { return p.left == 0; });
    }

    /// Takes from what is to be written all that predefined lists carry; whether that was anything.
    bool usePredefined(std::size_t group) {
        const std::size_t before = wanted_[group].entries.size();
        for (std::size_t most = 1; most != 0;) {
            std::size_t best = 0;
            most = 0;
            for (std::size_t list = 0; list < capabilities_.lists.size(); ++list) {
                const std::size_t count = countIn(list, group);
                if (count > most) best = list;
                most = std::max(most, count);
            }
            if (most != 0) takeFrom(best, group);
        }
        return wanted_[group].entries.size() != before;
    }

    std::size_t countIn(std::size_t list, std::size_t group) {
        const DaqListInfo& info = capabilities_.lists[list];
        if (started_.contains(list) || !canBeUsed(info, capabilities_)) return 0;
        if (!isPredefined(info, capabilities_) || !takesEvent(info, groups_[group].eventChannel)) return 0;
        const std::vector<Odt>& odts = layout(list);
        const auto& entries = wanted_[group].entries;
        return static_cast<std::size_t>(std::count_if(entries.begin(), entries.end(), [&](std::size_t entry) {
            return findIn(odts, list, groups_[group].entries[entry], room_).has_value();
        }));
    }

    void takeFrom(std::size_t list, std::size_t group) {
        started_[list] = group;
        std::vector<std::size_t> rest;
        for (const std::size_t entry : wanted_[group].entries) {
            auto found = findIn(layout(list), list, groups_[group].entries[entry], room_);
            if (!found) rest.push_back(entry);
            carried_[group][entry] = found;
        }
        wanted_[group].entries = std::move(rest);
    }

    const std::vector<Odt>& layout(std::size_t list) {
        const auto [place, isNew] = layouts_.try_emplace(list);
        if (isNew) place->second = layoutOf(capabilities_.lists[list], room_, capabilities_);
        return place->second;
    }

    void notePacked(std::size_t group) {
        const PackedLists& packed = packed_[group];
        for (std::size_t entry = 0; entry < packed.places.size(); ++entry) {
            const auto& place = packed.places[entry];
            if (!place) continue;
            const PackedLists::Part& part = packed.parts[place->part];
            carried_[group][entry] =
                Carried{part.list, place->at.odt, part.odts[place->at.odt].entries[place->at.entry].offset};
        }
    }

    /// By number; the lists of the capabilities need not be.
    void addLists(std::size_t group) {
        std::map<std::uint16_t, std::pair<std::size_t, std::vector<Odt>>> used;
        for (const PackedLists::Part& part : packed_[group].parts)
            if (!part.odts.empty()) used[capabilities_.lists[part.list].number] = {part.list, part.odts};
        for (const auto& [list, user] : started_)
            if (user == group) used[capabilities_.lists[list].number] = {list, layout(list)};
        std::map<std::size_t, std::size_t> planned;  // from the slave's lists to those of the plan
        for (auto& [number, list] : used) {
            planned[list.first] = plan_.lists.size();
            addList(groups_[group], capabilities_.lists[list.first], std::move(list.second));
        }
        for (const auto& [signal, entry] : groups_[group].uses) {
            const Carried& carried = *carried_[group][entry];
            const std::size_t list = planned[carried.list];
            plan_.signals[signal] = {list, plan_.lists[list].odts[carried.odt].recordOffset + carried.offset};
        }
    }

    void addList(const SignalGroup& group, const DaqListInfo& info, std::vector<Odt> odts) {
        DaqList& list = plan_.lists.emplace_back();
        list.number = info.number;
        list.predefined = isPredefined(info, capabilities_);
        list.eventChannel = group.eventChannel;
        list.prescaler = group.prescaler;
        list.odts = std::move(odts);
        // A predefined list may leave no room for it.
        list.timestamp = plan_.timestampSize != 0 && list.odts.front().payloadSize <= room_.firstPayload;
        layOutRecord(list);
        const std::size_t first =
            plan_.identification == DaqIdentification::absoluteOdt ? firstPidOf(info) : 0;
        for (std::size_t i = 0; i < list.odts.size(); ++i)
            list.odts[i].pid = static_cast<std::uint8_t>(std::min<std::size_t>(first + i, 0xFF));
    }

    std::size_t firstPidOf(const DaqListInfo& info) const {
        if (info.firstPid) return *info.firstPid;
        std::size_t first = 0;
        for (const DaqListInfo& list : capabilities_.lists)
            if (list.number < info.number) first += list.maxOdt;
        return first;
    }

    Error refusal() const;
    std::string withoutRoom() const;
    std::string listTexts() const;
    std::string textOf(const DaqListInfo& list) const;

    const std::span<const DaqSignal> signals_;
    const std::vector<SignalGroup>& groups_;
    const DaqRoom& room_;
    const DaqCapabilities& capabilities_;
    DaqPlan& plan_;
    std::vector<WantedGroup> wanted_;
    std::vector<PackedLists> packed_;
    std::vector<std::vector<std::optional<Carried>>> carried_;  ///< by group and entry
    std::map<std::size_t, std::size_t> started_;                ///< predefined lists, and the groups of them
    std::map<std::size_t, std::vector<Odt>> layouts_;           ///< of predefined lists
};

Error StaticPlanner::refusal() const {
    std::size_t all = 0;
    std::size_t fit = 0;
    std::vector<std::string> events;
    for (std::size_t i = 0; i < groups_.size(); ++i) {
        const SignalGroup& group = groups_[i];
        const auto& entries = wanted_[i].entries;
        const bool tooLarge = std::all_of(entries.begin(), entries.end(), [&](std::size_t entry) {
            return group.entries[entry].size > room_.firstPayload;
        });
        if (!entries.empty() && tooLarge) return firstOdtEmpty(group.eventChannel, room_);
        const auto fits = static_cast<std::size_t>(
            std::count_if(group.uses.begin(), group.uses.end(),
                          [&](const auto& use) { return carried_[i][use.second].has_value(); }));
        if (fits != group.uses.size())
            events.push_back(fmt::format("event {}: {} of {}", group.eventChannel, fits, group.uses.size()));
        all += group.uses.size();
        fit += fits;
    }
    Error error =
        invalidArgument(fmt::format("{} of {} signal(s) fit into the ECU's static DAQ lists ({}): {}", fit,
                                    all, fmt::join(events, ", "), listTexts()));
    error.hint = "measure fewer signals, or some at an event whose lists have room" + withoutRoom();
    return error;
}

/// Which signals have no place, the first of them by name.
std::string StaticPlanner::withoutRoom() const {
    constexpr std::size_t kMost = 8;
    std::vector<std::size_t> left;
    for (std::size_t i = 0; i < groups_.size(); ++i)
        for (const auto& [signal, entry] : groups_[i].uses)
            if (!carried_[i][entry]) left.push_back(signal);
    std::sort(left.begin(), left.end());
    std::vector<std::string> names;
    for (const std::size_t signal : left) {
        if (names.size() == kMost || signals_[signal].name.empty()) break;
        names.push_back(fmt::format("{}@{}", signals_[signal].name, signals_[signal].eventChannel));
    }
    if (names.empty()) return {};
    const std::size_t more = left.size() - names.size();
    return fmt::format("; there is no room for {}{}", fmt::join(names, ", "),
                       more == 0 ? "" : fmt::format(" and {} more", more));
}

/// Neighbours that are alike are told together.
std::string StaticPlanner::listTexts() const {
    constexpr std::size_t kMost = 12;
    const std::vector<DaqListInfo>& lists = capabilities_.lists;
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < lists.size();) {
        const std::string text = textOf(lists[i]);
        std::size_t end = i + 1;
        while (end < lists.size() && lists[end].number == lists[end - 1].number + 1 &&
               textOf(lists[end]) == text)
            ++end;
        texts.push_back(end - i == 1
                            ? fmt::format("list {} {}", lists[i].number, text)
                            : fmt::format("lists {} to {} {}", lists[i].number, lists[end - 1].number, text));
        i = end;
    }
    const std::size_t more = texts.size() - std::min(texts.size(), kMost);
    texts.resize(texts.size() - more);
    if (more != 0) texts.push_back(fmt::format("and {} more", more));
    return fmt::format("{}; {} byte(s) an ODT{}", fmt::join(texts, ", "), room_.payload,
                       plan_.timestampSize == 0 ? "" : fmt::format(", {} the first", room_.firstPayload));
}

std::string StaticPlanner::textOf(const DaqListInfo& list) const {
    const std::string event = list.fixedEvent ? fmt::format("event {}", *list.fixedEvent) : "any event";
    if (!canBeUsed(list, capabilities_)) return "(not for DAQ)";
    if (isPredefined(list, capabilities_)) return fmt::format("(predefined, {})", event);
    return fmt::format("({} ODT(s) x {} entries, {})", list.maxOdt, list.maxEntries, event);
}

}  // namespace

Result<void> checkStaticSignal(const DaqSignal& signal, const DaqRoom& room,
                               const DaqCapabilities& capabilities) {
    if (capabilities.lists.empty()) {
        return Error{.code = ErrorCode::unsupported,
                     .message = "the ECU has static DAQ lists and tells nothing about them"};
    }
    if (auto exists = checkEventExists(signal.eventChannel, capabilities); !exists) return exists;
    const auto usable = [&](const DaqListInfo& list) {
        return canBeUsed(list, capabilities) && takesEvent(list, signal.eventChannel);
    };
    const auto writable = [&](const DaqListInfo& list) {
        return usable(list) && !isPredefined(list, capabilities) && list.maxOdt != 0 && list.maxEntries != 0;
    };
    const auto carries = [&](const DaqListInfo& list) {
        return signal.size != 0 && usable(list) && isPredefined(list, capabilities) &&
               findIn(layoutOf(list, room, capabilities), 0, {signal.address, signal.size}, room);
    };
    const auto& lists = capabilities.lists;
    const bool canWrite = std::any_of(lists.begin(), lists.end(), writable);
    auto sized = checkEntrySize(signal, room);
    if (canWrite && sized) return sized;
    if (std::any_of(lists.begin(), lists.end(), carries)) return {};
    if (canWrite) return sized;
    if (std::none_of(lists.begin(), lists.end(), usable))
        return invalidArgument(
            fmt::format("no DAQ list of the ECU can be given event {}", signal.eventChannel));
    return invalidArgument(
        fmt::format("no DAQ list that can be given event {} carries {} byte(s) at 0x{:08X}",
                    signal.eventChannel, signal.size, signal.address.address));
}

Result<void> planStaticLists(std::span<const DaqSignal> signals, const std::vector<SignalGroup>& groups,
                             const DaqRoom& room, const DaqCapabilities& capabilities, DaqPlan& plan) {
    return StaticPlanner(signals, groups, room, capabilities, plan).run();
}

}  // namespace lm::xcp
