#include "xcp/daq_decoder.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "core/bytes.h"

namespace lm::xcp {

namespace {

constexpr std::uint8_t kOverloadBit = 0x80;
constexpr std::uint16_t kNoList = 0xFFFF;
constexpr std::int64_t kLongestHeldNs = 10'000'000'000;  // packets are not held up for longer

/// The list number travels least-significant byte first for slaves of either byte order.
std::uint16_t listNumberOf(DaqIdentification type, const std::uint8_t* data) {
    switch (type) {
        case DaqIdentification::relativeByte:
            return data[1];
        case DaqIdentification::relativeWord:
            return readLittle<std::uint16_t>(data + 1);
        default:
            return readLittle<std::uint16_t>(data + 2);
    }
}

}  // namespace

DaqDecoder::DaqDecoder(const DaqPlan& plan, const DaqCapabilities& capabilities,
                       std::span<const std::uint8_t> firstPids)
    : identification_(plan.identification),
      identificationSize_(plan.identificationSize),
      timestampSize_(plan.timestampSize),
      overloadInPid_(plan.overloadInPid),
      clock_(plan.timestampSize, capabilities.tickNs),
      lists_(plan.lists.size()) {
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        const DaqList& planned = plan.lists[i];
        const EventChannel* const event = capabilities.findEvent(planned.eventChannel);
        List& list = lists_[i];
        list.number = planned.number;
        list.timestamp = planned.timestamp;
        list.periodNs = event == nullptr ? 0 : event->cycleNs * planned.prescaler;
        list.mayHide = list.timestamp && clock_.usable() && clock_.wrapNs() <= kLongestHeldNs &&
                       list.periodNs > 0 && list.periodNs <= clock_.wrapNs() / 2;
        list.record.resize(planned.recordSize);
        for (const Odt& odt : planned.odts) {
            list.odts.push_back({odt.payloadSize, odt.recordOffset});
        }
    }
    numberLists();
    numberPids(plan, firstPids);
}

/// A static slave's own numbers may stand far apart.
void DaqDecoder::numberLists() {
    if (lists_.empty()) return;
    const auto [least, most] = std::minmax_element(
        lists_.begin(), lists_.end(), [](const List& a, const List& b) { return a.number < b.number; });
    firstListNumber_ = least->number;
    listsByNumber_.assign(std::size_t{most->number} - least->number + 1U, kNoList);
    for (std::size_t i = 0; i < lists_.size(); ++i)
        listsByNumber_[lists_[i].number - firstListNumber_] = static_cast<std::uint16_t>(i);
}

void DaqDecoder::numberPids(const DaqPlan& plan, std::span<const std::uint8_t> firstPids) {
    if (identification_ != DaqIdentification::absoluteOdt) return;
    for (std::size_t i = 0; i < plan.lists.size(); ++i) {
        const DaqList& list = plan.lists[i];
        for (std::size_t odt = 0; odt < list.odts.size(); ++odt) {
            const std::size_t pid = i < firstPids.size() ? firstPids[i] + odt : list.odts[odt].pid;
            if (pid >= pids_.size()) continue;
            pids_[pid] = {static_cast<std::uint16_t>(i), static_cast<std::uint8_t>(odt), true};
        }
    }
}

DaqDecoder::Place DaqDecoder::find(const std::uint8_t* data, std::uint8_t pid) {
    std::size_t index = 0;
    std::uint32_t odt = pid;
    if (identification_ == DaqIdentification::absoluteOdt) {
        const PidEntry& entry = pids_[pid];
        if (!entry.valid) return {nullptr, 0};
        index = entry.list;
        odt = entry.odt;
    } else {
        const std::uint16_t number = listNumberOf(identification_, data);
        const auto at = static_cast<std::uint16_t>(number - firstListNumber_);  // lower ones: far above
        if (at >= listsByNumber_.size()) return {nullptr, 0};
        index = listsByNumber_[at];
    }
    if (index >= lists_.size() || odt >= lists_[index].odts.size()) return {nullptr, 0};
    return {&lists_[index], odt};
}

void DaqDecoder::onDto(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    if (holding_.load(std::memory_order_acquire)) [[unlikely]] {
        const std::lock_guard lock(holdMutex_);
        decode(data, length, time);
    } else {
        decode(data, length, time);
    }
}

void DaqDecoder::decode(const std::uint8_t* data, std::size_t length, ReceiveTime time) {
    dtos_.add(1);
    if (holes_ != nullptr && holes_->load(std::memory_order_relaxed) != holesSeen_) endOpenRecords();
    if (length < identificationSize_) {
        malformedDtos_.add(1);
        return;
    }
    const bool overload = overloadInPid_ && (data[0] & kOverloadBit) != 0;
    const std::uint8_t pid = overload ? static_cast<std::uint8_t>(data[0] & ~kOverloadBit) : data[0];
    const Place place = find(data, pid);
    if (fit_ != nullptr && !fit_->finished()) [[unlikely]]
        examine(data, length, place, time.hostNs);
    if (place.list == nullptr) {
        unknownDtos_.add(1);
        return;
    }
    List& list = *place.list;
    if (overload) {
        overloads_.add(1);
        list.overload = true;
    }

    std::size_t start = identificationSize_;
    if (place.odt == 0) {
        if (list.nextOdt != 0) abandon(list, list.odts.size() - list.nextOdt);
        if (!beginRecord(list, data, length, time.hostNs)) return;
        if (list.timestamp) start += timestampSize_;
    } else if (place.odt != list.nextOdt) {
        const bool ahead = place.odt > list.nextOdt;  // also when no record is open
        abandon(list, ahead ? place.odt - list.nextOdt : 1);
        return;
    }

    const OdtLayout& odt = list.odts[place.odt];
    if (length < start + odt.payloadSize) {
        malformedDtos_.add(1);
        list.nextOdt = 0;
        return;
    }
    std::memcpy(list.record.data() + odt.recordOffset, data + start, odt.payloadSize);
    list.nextOdt = place.odt + 1;
    if (list.nextOdt == list.odts.size()) finishRecord(list);
}

void DaqDecoder::examine(const std::uint8_t* data, std::size_t length, const Place& place,
                         std::int64_t hostNs) {
    if (place.list == nullptr) return fit_->onStranger(hostNs);
    const bool stamped = place.odt == 0 && place.list->timestamp;
    const std::size_t head = identificationSize_ + std::size_t{stamped ? timestampSize_ : std::uint8_t{0}};
    std::optional<std::uint32_t> stamp;
    if (stamped && length >= head)
        stamp = static_cast<std::uint32_t>(
            readSized(data + identificationSize_, timestampSize_, ByteOrder::littleEndian));
    const auto list = static_cast<std::size_t>(place.list - lists_.data());
    fit_->onDto(list, place.odt == 0, head + place.list->odts[place.odt].payloadSize, length, stamp, hostNs);
}

bool DaqDecoder::beginRecord(List& list, const std::uint8_t* data, std::size_t length,
                             std::int64_t receiveNs) {
    list.nextOdt = 0;
    list.receiveNs = receiveNs;
    if (!list.timestamp) return true;
    if (length < static_cast<std::size_t>(identificationSize_) + timestampSize_) {
        malformedDtos_.add(1);
        return false;
    }
    list.raw = static_cast<std::uint32_t>(
        readSized(data + identificationSize_, timestampSize_, ByteOrder::littleEndian));
    return true;
}

void DaqDecoder::abandon(List& list, std::uint64_t lostOdts) {
    lostOdts_.add(lostOdts);
    incompleteRecords_.add(1);
    list.nextOdt = 0;
}

/// Their next ODTs may be those of later samples.
void DaqDecoder::endOpenRecords() {
    holesSeen_ = holes_->load(std::memory_order_relaxed);
    for (List& list : lists_) {
        if (list.nextOdt != 0) abandon(list, list.odts.size() - list.nextOdt);
    }
}

void DaqDecoder::finishRecord(List& list) {
    list.nextOdt = 0;
    list.records.add(1);
    UntimedRecord record{.list = static_cast<std::uint32_t>(&list - lists_.data()),
                         .raw = list.raw,
                         .receiveNs = list.receiveNs,
                         .overload = std::exchange(list.overload, false),
                         .regular = list.mayHide};
    if (held_ && heldBack(list, record)) return;
    if (list.timestamp && clock_.usable()) record.ticks = ticksOf(list);
    deliver(record, list.record.data());
}

std::uint64_t DaqDecoder::ticksOf(const List& list) const {
    if (held_ && held_->backlog() && late(list)) return clock_.followHeld(list.clock, list.raw);
    return clock_.follow(list.clock, list.raw, list.receiveNs);
}

/// The open record's timestamp: its counter has wrapped unseen, or its packet was held up.
bool DaqDecoder::late(const List& list) const {
    return clock_.lagNs(clock_.next(list.clock, list.raw), list.receiveNs) > clock_.longestLagNs();
}

void DaqDecoder::holdBack() {
    const bool stamped = std::all_of(lists_.begin(), lists_.end(), [](const List& l) { return l.timestamp; });
    if (stamped && clock_.usable()) held_ = std::make_unique<HeldRecords>(lists_.size());
}

/// False when the record is to be handed on at once.
bool DaqDecoder::heldBack(const List& list, const UntimedRecord& record) {
    // The start ends with a record that may begin a silence.
    if (holding() && held_->ofStart() && held_->due(record.receiveNs)) release();
    const bool first = !holding();
    if (first && !held_->begun()) {
        held_->beginStart(record.receiveNs);
    } else if (first) {
        if (!list.mayHide) return false;
        if (!late(list)) {
            held_->endBacklog();
            return false;
        }
        held_->beginSilence(record, list.clock, clock_);
    }
    if (!held_->add(record, list.record.data(), list.record.size())) {
        release();
        return false;
    }
    if (!held_->ofStart() && held_->enough(record, clock_)) {
        release();
    } else if (first) {
        // From now on another thread may take them.
        holding_.store(true, std::memory_order_release);
    }
    return true;
}

void DaqDecoder::settle(std::int64_t nowNs) {
    if (!holding_.load(std::memory_order_acquire)) return;
    const std::lock_guard lock(holdMutex_);
    if (holding() && held_->due(nowNs)) release();
}

void DaqDecoder::release() {
    for (std::size_t i = 0; i < lists_.size(); ++i)
        held_->scout(i) = lists_[i].clock;
    held_->findTicks(clock_);
    for (const UntimedRecord& record : held_->records())
        deliver(record, held_->bytes(record));
    held_->clear();
    holding_.store(false, std::memory_order_release);
}

void DaqDecoder::deliver(const UntimedRecord& record, const std::uint8_t* data) {
    List& list = lists_[record.list];
    const bool timed = list.timestamp && clock_.usable();
    std::int64_t timeNs = record.receiveNs;
    if (timed) {
        timeNs = clock_.mapTicks(list.clock, record.ticks, record.receiveNs);
        if (list.clockGeneration != clock_.generation()) list.hasPrevious = false;
        list.clockGeneration = clock_.generation();
        clockFit_.add(clock_.offsetNs(record.ticks, record.receiveNs), record.receiveNs, clock_.generation());
    }
    if (list.timestamp) checkCycle(list, timeNs);
    if (sink_ == nullptr) return;
    sink_->onRecord({.listNumber = list.number,
                     .listIndex = record.list,
                     .receiveTimeNs = record.receiveNs,
                     .slaveTimeNs = timed ? timeNs : 0,
                     .hasSlaveTime = timed,
                     .overload = record.overload,
                     .data = data,
                     .size = list.record.size()});
}

void DaqDecoder::checkCycle(List& list, std::int64_t timeNs) {
    if (list.hasPrevious && list.periodNs > 0 && list.previousNs < timeNs) {
        const std::int64_t periods = (timeNs - list.previousNs + list.periodNs / 2) / list.periodNs;
        if (periods > 1) missedCycles_.add(static_cast<std::uint64_t>(periods - 1));
    }
    list.previousNs = timeNs;
    list.hasPrevious = true;
}

DaqDecoderCounters DaqDecoder::counters() const {
    std::uint64_t records = 0;
    for (const List& list : lists_)
        records += list.records.get();
    return {.dtos = dtos_.get(),
            .records = records,
            .lostOdts = lostOdts_.get(),
            .incompleteRecords = incompleteRecords_.get(),
            .missedCycles = missedCycles_.get(),
            .overloads = overloads_.get(),
            .unknownDtos = unknownDtos_.get(),
            .malformedDtos = malformedDtos_.get()};
}

}  // namespace lm::xcp
