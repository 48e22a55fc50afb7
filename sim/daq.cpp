#include "sim/daq.h"

#include <algorithm>
#include <array>

namespace lm::sim {
namespace {

constexpr std::size_t kMaxOdtsPerList = 252;  // relative ODT numbers end below the packet identifiers
constexpr std::uint8_t kModeSelected = 0x01;
constexpr std::uint8_t kModeTimestamp = 0x10;
constexpr std::uint8_t kModeRunning = 0x40;
constexpr std::uint8_t kModeUnsupported = 0x23;  // alternating, direction STIM, PID off

}  // namespace

DaqLists::DaqLists(const Options& options, const World& world, FaultPlan& faults)
    : options_(options), world_(world), faults_(faults) {
    reset();
}

void DaqLists::free() {
    lists_.clear();
    allocated_ = 0;
    pointerValid_ = false;
    stage_ = Stage::freed;
}

void DaqLists::reset() {
    free();
    stage_ = Stage::idle;
    for (const StaticList& one : options_.staticLists)
        lists_.push_back(makeList(one));
}

DaqLists::List DaqLists::makeList(const StaticList& from) const {
    List list;
    list.fixed = &from;
    list.event = from.event.value_or(0);
    list.odts.assign(from.maxOdts, Odt{});
    for (std::size_t i = 0; i < list.odts.size(); ++i) {
        Odt& odt = list.odts[i];
        if (from.predefined.empty()) odt.entries.assign(from.maxEntries, Entry{});
        if (from.predefined.empty()) continue;
        for (const StaticList::Entry& entry : from.predefined[i]) {
            const std::uint8_t* at = world_.read(entry.extension, entry.address, entry.size);
            odt.entries.push_back({at, entry.size, entry.address, entry.extension});
            odt.bytes += entry.size;
        }
    }
    return list;
}

DaqLists::Refusal DaqLists::allocLists(std::uint16_t count) {
    if (stage_ != Stage::freed && stage_ != Stage::lists) return Err::sequence;
    const std::size_t limit = options_.identification == 1 ? 256U - options_.minDaq : 4096U;
    if (count > limit) return Err::memoryOverflow;
    lists_.assign(count, List{});
    stage_ = Stage::lists;
    return std::nullopt;
}

DaqLists::Refusal DaqLists::allocOdts(std::uint16_t list, std::uint8_t count) {
    if (stage_ != Stage::lists && stage_ != Stage::odts) return Err::sequence;
    List* target = find(list);
    if (target == nullptr) return Err::outOfRange;
    const std::size_t top = options_.overload == OverloadIndication::topBit ? 124 : kMaxOdtsPerList;
    std::size_t total = options_.firstPid + std::size_t{count};
    if (options_.identification == 0) {
        for (const List& other : lists_)
            total += &other == target ? 0 : other.odts.size();
    }
    if (count > top || (options_.identification == 0 && total > top)) return Err::memoryOverflow;
    target->odts.assign(count, Odt{});
    stage_ = Stage::odts;
    return std::nullopt;
}

DaqLists::Refusal DaqLists::allocEntries(std::uint16_t list, std::uint8_t odt, std::uint8_t count) {
    if (stage_ != Stage::odts && stage_ != Stage::entries) return Err::sequence;
    List* target = find(list);
    if (target == nullptr || odt >= target->odts.size()) return Err::outOfRange;
    std::vector<Entry>& entries = target->odts[odt].entries;
    if (allocated_ - entries.size() + count > options_.daqEntries) return Err::memoryOverflow;
    allocated_ += count - entries.size();
    entries.assign(count, Entry{});
    stage_ = Stage::entries;
    return std::nullopt;
}

const DaqLists::List* DaqLists::find(std::uint16_t list) const {
    if (list < firstList() || list - firstList() >= count()) return nullptr;
    return &lists_[list - firstList()];
}

DaqLists::Refusal DaqLists::setPointer(std::uint16_t list, std::uint8_t odt, std::uint8_t entry) {
    const List* target = find(list);
    pointerValid_ = false;
    if (target == nullptr || odt >= target->odts.size() || entry >= target->odts[odt].entries.size()) {
        return Err::outOfRange;
    }
    if (target->running) return Err::daqActive;
    pointerValid_ = true;
    pointerList_ = list;
    pointerOdt_ = odt;
    pointerEntry_ = entry;
    return std::nullopt;
}

DaqLists::Refusal DaqLists::writeEntry(std::uint8_t bitOffset, std::size_t size, std::uint8_t extension,
                                       std::uint32_t address) {
    if (!pointerValid_) return Err::sequence;
    List& list = *find(pointerList_);
    if (list.fixed != nullptr && list.running) return Err::daqActive;
    if (list.fixed != nullptr && !list.fixed->predefined.empty()) return Err::writeProtected;
    Odt& odt = list.odts[pointerOdt_];
    if (pointerEntry_ >= odt.entries.size()) return Err::outOfRange;
    const std::uint8_t* at = world_.read(extension, address, size);
    if (bitOffset != 0xFF || size == 0 || size > options_.maxOdtEntrySize() || at == nullptr ||
        address % options_.granularity != 0) {
        return Err::outOfRange;
    }
    Entry& entry = odt.entries[pointerEntry_];
    const std::size_t bytes = odt.bytes - entry.size + size;
    if (options_.identificationSize() + bytes > options_.maxDto) return Err::daqConfig;
    odt.bytes = bytes;
    entry = {at, size, address, extension};
    ++pointerEntry_;
    return std::nullopt;
}

std::variant<DaqLists::Entry, Err> DaqLists::readEntry() {
    if (!pointerValid_) return Err::sequence;
    const Odt& odt = find(pointerList_)->odts[pointerOdt_];
    if (pointerEntry_ >= odt.entries.size()) return Err::outOfRange;
    return odt.entries[pointerEntry_++];
}

DaqLists::Refusal DaqLists::clear(std::uint16_t list) {
    List* target = find(list);
    if (target == nullptr) return Err::outOfRange;
    *target = makeList(*target->fixed);
    pointerValid_ = false;
    return std::nullopt;
}

DaqLists::Refusal DaqLists::setMode(std::uint16_t list, const Mode& mode) {
    List* target = find(list);
    if (target == nullptr || mode.event >= kEventCount || mode.prescaler == 0) return Err::outOfRange;
    if (mode.prescaler != 1 && !options_.prescaler) return Err::outOfRange;
    const StaticList* fixed = target->fixed;
    if (fixed != nullptr && (mode.priority != 0 || fixed->event.value_or(mode.event) != mode.event)) {
        return Err::outOfRange;
    }
    if (target->running) return Err::daqActive;
    const bool timestamp = (mode.bits & kModeTimestamp) != 0;
    const bool impossible = timestamp ? options_.timestampSize == 0 : options_.timestampFixed;
    if ((mode.bits & kModeUnsupported) != 0 || impossible) return Err::modeNotValid;
    target->event = mode.event;
    target->prescaler = mode.prescaler;
    target->timestamp = timestamp;
    return std::nullopt;
}

std::optional<DaqLists::Mode> DaqLists::mode(std::uint16_t list) const {
    const List* target = find(list);
    if (target == nullptr) return std::nullopt;
    const int bits = (target->selected ? kModeSelected : 0) | (target->timestamp ? kModeTimestamp : 0) |
                     (target->running ? kModeRunning : 0);
    return Mode{static_cast<std::uint8_t>(bits), target->event, std::max<std::uint8_t>(target->prescaler, 1),
                0};
}

std::optional<DaqLists::Info> DaqLists::info(std::uint16_t list) const {
    const List* target = find(list);
    if (target == nullptr) return std::nullopt;
    const StaticList& fixed = *target->fixed;
    return Info{!fixed.predefined.empty(), fixed.maxOdts, fixed.maxEntries, fixed.event};
}

/// Dynamic: every entry written. Static: no gap before the last one written, neither in an ODT nor between.
bool DaqLists::whole(const List& list) const {
    const auto written = [](const Entry& entry) { return entry.at != nullptr; };
    const auto used = [](const Odt& odt) { return odt.bytes != 0; };
    const bool dynamic = list.fixed == nullptr;
    return std::is_partitioned(list.odts.begin(), list.odts.end(), used) &&
           std::all_of(list.odts.begin(), list.odts.end(), [&](const Odt& odt) {
               if (dynamic && (odt.entries.empty() || !written(odt.entries.back()))) return false;
               return std::is_partitioned(odt.entries.begin(), odt.entries.end(), written);
           });
}

/// Something to send, whole, every ODT within MAX_DTO (the first one with the timestamp), a mode set.
bool DaqLists::complete(const List& list) const {
    if (list.prescaler == 0 || list.odts.empty() || list.odts[0].bytes == 0 || !whole(list)) return false;
    const std::size_t stamp = list.timestamp ? options_.timestampSize : 0U;
    return options_.identificationSize() + stamp + list.odts[0].bytes <= options_.maxDto;
}

void DaqLists::start(List& list) {
    list.running = true;
    list.selected = false;
    list.overloaded = false;
    list.skipped = 0;
    const auto used = [](const Odt& odt) { return odt.bytes != 0; };
    list.used = static_cast<std::size_t>(std::count_if(list.odts.begin(), list.odts.end(), used));
}

DaqLists::Refusal DaqLists::startStop(std::uint16_t list, std::uint8_t mode) {
    List* target = find(list);
    if (target == nullptr) return Err::outOfRange;
    if (mode > 2) return Err::modeNotValid;
    if (mode != 0 && !complete(*target)) return Err::daqConfig;
    if (mode == 0) target->running = false;
    if (mode == 2 && target->running && options_.selectStopped) return Err::daqActive;
    if (mode == 1) start(*target);
    if (mode == 2) target->selected = true;
    return std::nullopt;
}

DaqLists::Refusal DaqLists::startStopSelected(std::uint8_t mode) {
    if (mode > 2) return Err::modeNotValid;
    const auto selected = [](const List& list) { return list.selected; };
    if (mode == 1 && std::none_of(lists_.begin(), lists_.end(), selected)) return Err::sequence;
    for (List& list : lists_) {
        if (mode == 1 && list.selected) start(list);
        if (mode == 0 || (mode == 2 && list.selected)) list.running = list.selected = false;
    }
    return std::nullopt;
}

std::uint8_t DaqLists::firstPid(std::uint16_t list) const {
    if (options_.identification != 0) return 0;
    if (options_.sameFirstPid == SameFirstPid::sent) return options_.firstPid;
    if (options_.isStatic()) return lists_[list].fixed->firstPid;
    std::size_t pid = options_.firstPid;
    for (std::size_t i = 0; i + options_.minDaq < list; ++i)
        pid += lists_[i].odts.size();
    return static_cast<std::uint8_t>(pid);
}

bool DaqLists::running() const {
    return std::any_of(lists_.begin(), lists_.end(), [](const List& list) { return list.running; });
}

void DaqLists::sample(std::uint8_t event, std::uint64_t ticks, Outbox& out) {
    for (std::size_t i = 0; i < lists_.size(); ++i) {
        List& list = lists_[i];
        if (!list.running || list.event != event) continue;
        if (++list.skipped < list.prescaler) continue;
        list.skipped = 0;
        ++counters_.samples;
        counters_.dtos += list.used;
        if (faults_.due(StreamFault::overload)) {
            ++counters_.samplesLost;
            counters_.dtosLost += list.used;
            list.overloaded = true;
            if (options_.overload == OverloadIndication::event) {
                out.append(std::array<std::uint8_t, 2>{kEventPacket, kEvDaqOverload});
            }
            continue;
        }
        sampleList(i, ticks, out);
    }
}

void DaqLists::sampleList(std::size_t index, std::uint64_t ticks, Outbox& out) {
    List& list = lists_[index];
    const std::size_t head = options_.identificationSize();
    for (std::size_t odt = 0; odt < list.used; ++odt) {
        const Odt& source = list.odts[odt];
        const std::size_t stamp = odt == 0 && list.timestamp ? options_.timestampSize : 0U;
        const std::size_t whole = head + stamp + source.bytes;
        if (faults_.due(StreamFault::loseOdt)) {
            ++counters_.dtosLost;
            continue;
        }
        std::uint8_t* to =
            out.append(std::min<std::size_t>(whole + options_.pad, options_.maxDto), true).data();
        writeHead(to, index, odt, odt == 0 && list.overloaded);
        to += head;
        if (stamp != 0) writeSized(to, ticks, stamp, ByteOrder::littleEndian);
        to += stamp;
        for (const Entry& entry : source.entries) {
            if (entry.at == nullptr) break;
            std::memcpy(to, entry.at, entry.size);
            to += entry.size;
        }
    }
    list.overloaded = false;
}

void DaqLists::writeHead(std::uint8_t* to, std::size_t list, std::size_t odt, bool overloaded) const {
    const std::size_t number = list + firstList();
    to[0] = static_cast<std::uint8_t>(odt);
    switch (options_.identification) {
        case 0:
            to[0] = static_cast<std::uint8_t>(firstPid(static_cast<std::uint16_t>(number)) + odt);
            break;
        case 1:
            to[1] = static_cast<std::uint8_t>(number);
            break;
        default:
            writeLittle(to + options_.identification - 1, static_cast<std::uint16_t>(number));
    }
    if (overloaded && options_.overload == OverloadIndication::topBit) to[0] |= 0x80;
}

}  // namespace lm::sim
