#include "xcp/static_list_search.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace lm::xcp {
namespace {

constexpr std::size_t kMostSteps = 5'000'000;  // looks at an ODT: some hundredths of a second
constexpr std::size_t kMostAddedLists = 3;     // of which all choices are tried
constexpr std::uint8_t kNoListLimit = 0xFF;

std::size_t bytesOfGroup(const WantedGroup& wanted) {
    return std::accumulate(
        wanted.entries.begin(), wanted.entries.end(), std::size_t{0},
        [&wanted](std::size_t sum, std::size_t entry) { return sum + wanted.group->entries[entry].size; });
}

std::vector<std::size_t> reversed(std::vector<std::size_t> lists) {
    std::reverse(lists.begin(), lists.end());
    return lists;
}

}  // namespace

std::size_t mostOdts(const DaqCapabilities& capabilities) {
    return capabilities.overloadInPid ? 124 : 252;
}

bool canBeUsed(const DaqListInfo& list, const DaqCapabilities& capabilities) {
    const bool nameable =
        capabilities.identification != DaqIdentification::relativeByte || list.number <= 0xFF;
    return list.offersDaq && nameable;
}

bool takesEvent(const DaqListInfo& list, std::uint16_t eventChannel) {
    return !list.fixedEvent || *list.fixedEvent == eventChannel;
}

bool isPredefined(const DaqListInfo& list, const DaqCapabilities& capabilities) {
    return list.predefined || list.number < capabilities.minDaq;
}

StaticListSearch::StaticListSearch(const DaqCapabilities& capabilities, const DaqRoom& room, bool stamped)
    : capabilities_(capabilities), room_(room), stamped_(stamped) {}

std::vector<PackedLists> StaticListSearch::run(const std::vector<WantedGroup>& wanted) {
    wanted_ = &wanted;
    stepsLeft_ = kMostSteps;
    used_.assign(capabilities_.lists.size(), false);
    packed_.assign(wanted.size(), {});
    order_.resize(wanted.size());
    std::iota(order_.begin(), order_.end(), std::size_t{0});
    std::stable_sort(order_.begin(), order_.end(), [&wanted](std::size_t a, std::size_t b) {
        return bytesOfGroup(wanted[a]) > bytesOfGroup(wanted[b]);
    });
    return place(0) ? std::move(packed_) : placeGreedily();
}

/// The groups of order_ from `at` on; all of the lists is as before when there is no way.
bool StaticListSearch::place(std::size_t at) {
    if (at == order_.size()) return true;
    const WantedGroup& wanted = (*wanted_)[order_[at]];
    if (wanted.entries.empty()) {
        packed_[order_[at]].places.resize(wanted.group->entries.size());
        return place(at + 1);
    }
    return tryLists(wanted, [this, at](const Lists& lists) { return placeIn(at, lists); });
}

bool StaticListSearch::placeIn(std::size_t at, const Lists& lists) {
    const WantedGroup& wanted = (*wanted_)[order_[at]];
    if (stepsLeft_ == 0 || !mayHold(wanted, lists)) return false;
    PackedLists packed = pack(wanted, lists);
    const auto used = std::count_if(packed.parts.begin(), packed.parts.end(),
                                    [](const PackedLists::Part& part) { return !part.odts.empty(); });
    const std::size_t most = mostListsOf(wanted.group->eventChannel);
    if (packed.left != 0 || static_cast<std::size_t>(used) > most) return false;
    mark(packed, true);
    if (place(at + 1)) {
        packed_[order_[at]] = std::move(packed);
        return true;
    }
    mark(packed, false);
    return false;
}

/// One list, else few; lists that no one else can use first, small ones before large ones.
bool StaticListSearch::tryLists(const WantedGroup& wanted, const Try& attempt) const {
    const Choice choice = choiceFor(wanted.group->eventChannel);
    const Lists own = reversed(choice.own);
    if (tryMore({}, choice.own, 0, 1, attempt) || tryMore({}, choice.free, 0, 1, attempt)) return true;
    if (own.size() > 1 && attempt(own)) return true;
    for (std::size_t count = own.empty() ? 2 : 1; count <= kMostAddedLists; ++count)
        if (tryMore(own, choice.free, 0, count, attempt)) return true;
    Lists all = own;
    const Lists free = reversed(choice.free);
    all.insert(all.end(), free.begin(), free.end());
    return attempt(all);
}

/// `base` and `count` more of those from `from` on. Lists of one shape are as good as each other.
bool StaticListSearch::tryMore(const Lists& base, const Lists& free, std::size_t from, std::size_t count,
                               const Try& attempt) const {
    if (count == 0) return attempt(base);
    for (std::size_t i = from; i + count <= free.size() && stepsLeft_ != 0; ++i) {
        if (i > from && sameShape(free[i], free[i - 1])) continue;
        Lists more = base;
        more.push_back(free[i]);
        if (tryMore(more, free, i + 1, count - 1, attempt)) return true;
    }
    return false;
}

StaticListSearch::Choice StaticListSearch::choiceFor(std::uint16_t eventChannel) const {
    Choice choice;
    for (std::size_t i = 0; i < capabilities_.lists.size(); ++i) {
        const DaqListInfo& list = capabilities_.lists[i];
        const bool empty = list.maxOdt == 0 || list.maxEntries == 0;
        if (used_[i] || empty || !takesEvent(list, eventChannel)) continue;
        if (isPredefined(list, capabilities_) || !canBeUsed(list, capabilities_)) continue;
        (list.fixedEvent ? choice.own : choice.free).push_back(i);
    }
    const auto smaller = [this](std::size_t a, std::size_t b) {
        const auto size = [this](std::size_t list) {
            return std::pair(bytesOf(list), shapeOf(list).odts * shapeOf(list).entriesOfOdt);
        };
        return size(a) < size(b);
    };
    std::stable_sort(choice.own.begin(), choice.own.end(), smaller);
    std::stable_sort(choice.free.begin(), choice.free.end(), smaller);
    return choice;
}

bool StaticListSearch::sameShape(std::size_t a, std::size_t b) const {
    return shapeOf(a).odts == shapeOf(b).odts && shapeOf(a).entriesOfOdt == shapeOf(b).entriesOfOdt;
}

std::vector<PackedLists> StaticListSearch::placeGreedily() {
    std::fill(used_.begin(), used_.end(), false);
    for (const std::size_t group : order_) {
        const WantedGroup& wanted = (*wanted_)[group];
        const Choice choice = choiceFor(wanted.group->eventChannel);
        Lists lists = reversed(choice.own);
        const Lists free = reversed(choice.free);
        lists.insert(lists.end(), free.begin(), free.end());
        lists.resize(std::min(lists.size(), mostListsOf(wanted.group->eventChannel)));
        packed_[group] = pack(wanted, lists);
        mark(packed_[group], true);
    }
    return std::move(packed_);
}

/// The entries go into the lists in their order, each into the first with room.
PackedLists StaticListSearch::pack(const WantedGroup& wanted, const Lists& lists) {
    PackedLists packed = packSeeded(wanted, lists, 0);
    std::size_t seeds = 0;
    bool lacks = false;
    for (std::size_t i = 0; i < packed.parts.size(); ++i) {
        const std::vector<Odt>& odts = packed.parts[i].odts;
        if (odts.empty()) continue;
        seeds = i + 1;
        lacks = lacks || odts.front().entries.empty();
    }
    // Small entries are kept for the first ODTs, which have less room than the others.
    if (lacks) packed = packSeeded(wanted, lists, seeds);
    dropWithoutFirstOdt(packed);
    return packed;
}

/// The first `seeds` lists get one of the smallest entries each before all others are placed.
PackedLists StaticListSearch::packSeeded(const WantedGroup& wanted, const Lists& lists, std::size_t seeds) {
    PackedLists packed;
    packed.places.resize(wanted.group->entries.size());
    std::size_t odts = 0;
    for (const std::size_t list : lists) {
        packed.parts.push_back({list, {}});
        odts += shapeOf(list).odts;
    }
    stepsLeft_ -= std::min(stepsLeft_, wanted.entries.size() * std::min(odts, wanted.entries.size()) + 1);
    const auto placeIn = [&](std::size_t entry, std::size_t part) {
        const SignalGroup::Entry& value = wanted.group->entries[entry];
        // Predefined lists carry other sizes, too.
        if (value.size > room_.entryLimit || value.size % room_.entryUnit != 0) return false;
        const ListShape shape = shapeOf(packed.parts[part].list);
        const auto at = placeEntry(packed.parts[part].odts, value, room_, shape);
        if (at) packed.places[entry] = PackedLists::Place{part, *at};
        return at.has_value();
    };
    seeds = std::min(seeds, wanted.entries.size());
    std::size_t seeded = 0;
    while (seeded < seeds) {
        const std::size_t smallest = wanted.entries[wanted.entries.size() - 1 - seeded];
        if (wanted.group->entries[smallest].size > room_.firstPayload) break;
        placeIn(smallest, seeded++);
    }
    for (std::size_t i = 0; i + seeded < wanted.entries.size(); ++i) {
        std::size_t part = 0;
        while (part < packed.parts.size() && !placeIn(wanted.entries[i], part))
            ++part;
        if (part == packed.parts.size()) ++packed.left;
    }
    return packed;
}

/// What stands in a list that would send no timestamp has no place; ODTs without entries are none.
void StaticListSearch::dropWithoutFirstOdt(PackedLists& packed) const {
    for (std::size_t part = 0; part < packed.parts.size(); ++part) {
        std::vector<Odt>& odts = packed.parts[part].odts;
        while (!odts.empty() && odts.back().entries.empty())
            odts.pop_back();
        if (odts.empty() || !stamped_ || !odts.front().entries.empty()) continue;
        odts.clear();
        for (auto& place : packed.places) {
            if (!place || place->part != part) continue;
            place.reset();
            ++packed.left;
        }
    }
}

/// As far as counting tells.
bool StaticListSearch::mayHold(const WantedGroup& wanted, const Lists& lists) const {
    std::size_t bytes = 0;
    std::size_t entries = 0;
    for (const std::size_t list : lists) {
        bytes += bytesOf(list);
        entries += shapeOf(list).odts * shapeOf(list).entriesOfOdt;
    }
    return bytesOfGroup(wanted) <= bytes && wanted.entries.size() <= entries;
}

std::size_t StaticListSearch::mostListsOf(std::uint16_t eventChannel) const {
    const EventChannel* const event = capabilities_.findEvent(eventChannel);
    const bool limited = event != nullptr && event->maxDaqList != 0 && event->maxDaqList != kNoListLimit;
    return limited ? event->maxDaqList : SIZE_MAX;
}

ListShape StaticListSearch::shapeOf(std::size_t list) const {
    const DaqListInfo& info = capabilities_.lists[list];
    return {std::min<std::size_t>(info.maxOdt, mostOdts(capabilities_)), info.maxEntries};
}

std::size_t StaticListSearch::bytesOf(std::size_t list) const {
    return room_.firstPayload + (shapeOf(list).odts - 1) * room_.payload;
}

void StaticListSearch::mark(const PackedLists& packed, bool used) {
    for (const PackedLists::Part& part : packed.parts)
        if (!part.odts.empty()) used_[part.list] = used;
}

}  // namespace lm::xcp
