#include "sim/daq.h"

#include <algorithm>

namespace lm::sim {
namespace {

constexpr std::size_t kMaxOdtsPerList = 252;  // relative ODT numbers end below the packet identifiers
constexpr std::uint8_t kModeSelected = 0x01;
constexpr std::uint8_t kModeTimestamp = 0x10;
constexpr std::uint8_t kModePidOff = 0x20;
constexpr std::uint8_t kModeRunning = 0x40;
constexpr std::uint8_t kModeUnsupported = 0x03;  // alternating, direction STIM

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
        lists_.push_back(makeList(one, lists_.size()));
}

DaqLists::List DaqLists::makeList(const StaticList& from, std::size_t number) const {
    List list;
    list.canId = givenCanId(number);
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
    for (std::size_t i = 0; i < lists_.size(); ++i)
        lists_[i].canId = givenCanId(i + options_.minDaq);
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
    const std::size_t head = options_.pidOff ? 0 : options_.identificationSize();
    if (head + bytes > options_.maxDto) return Err::daqConfig;
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
    const std::uint32_t canId = target->canId;
    *target = makeList(*target->fixed, list);
    target->canId = canId;
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
    const bool pidOff = (mode.bits & kModePidOff) != 0;
    if ((mode.bits & kModeUnsupported) != 0 || impossible || (pidOff && !canOmitPid(*target))) {
        return Err::modeNotValid;
    }
    target->event = mode.event;
    target->prescaler = mode.prescaler;
    target->timestamp = timestamp;
    target->pidOff = pidOff;
    return std::nullopt;
}

std::optional<DaqLists::Mode> DaqLists::mode(std::uint16_t list) const {
    const List* target = find(list);
    if (target == nullptr) return std::nullopt;
    const int bits = (target->selected ? kModeSelected : 0) | (target->timestamp ? kModeTimestamp : 0) |
                     (target->pidOff ? kModePidOff : 0) | (target->running ? kModeRunning : 0);
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
    if (list.pidOff && !canOmitPid(list)) return false;
    const std::size_t head = headSize(list) + (list.timestamp ? options_.timestampSize : 0U);
    return head + list.odts[0].bytes <= options_.maxDto &&
           std::all_of(list.odts.begin(), list.odts.end(),
                       [&](const Odt& odt) { return headSize(list) + odt.bytes <= options_.maxDto; });
}

std::uint32_t DaqLists::givenCanId(std::size_t number) const {
    return number < options_.canListIds.size() ? options_.canListIds[number] : 0;
}

std::optional<std::uint32_t> DaqLists::canId(std::uint16_t list) const {
    const List* target = find(list);
    if (target == nullptr) return std::nullopt;
    return target->canId != 0 ? target->canId : options_.canDtoId();
}

DaqLists::Refusal DaqLists::setCanId(std::uint16_t list, std::uint32_t id) {
    List* target = find(list);
    if (target == nullptr || !isCanId(id)) return Err::outOfRange;
    if (target->running) return Err::daqActive;
    target->canId = id;
    return std::nullopt;
}

/// One ODT, on an identifier that nothing else is sent on.
bool DaqLists::canOmitPid(const List& list) const {
    const auto used = [](const Odt& odt) { return odt.bytes != 0; };
    const bool dynamic = list.fixed == nullptr;
    const auto odts = dynamic ? static_cast<std::ptrdiff_t>(list.odts.size())
                              : std::count_if(list.odts.begin(), list.odts.end(), used);
    const auto shares = [&](const List& other) { return &other != &list && other.canId == list.canId; };
    return options_.pidOff && odts <= 1 && list.canId != 0 && list.canId != options_.canResId &&
           list.canId != options_.canDtoId() && std::none_of(lists_.begin(), lists_.end(), shares);
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

}  // namespace lm::sim
