#include "xcp/held_records.h"

#include <algorithm>
#include <limits>

namespace lm::xcp {

namespace {

constexpr std::int64_t kOneMillisecond = 1'000'000;
constexpr std::int64_t kStartNs = 500 * kOneMillisecond;
constexpr std::int64_t kLongestSilenceNs = 50 * kOneMillisecond;

/// What tells a backlog from an event that paused: so much that it catches up, or that passes without.
std::int64_t evidenceNs(const SlaveClock& clock) {
    return std::min(clock.wrapNs() / 4, kLongestSilenceNs);
}

}  // namespace

void HeldRecords::beginStart(std::int64_t receiveNs) {
    begun_ = true;
    reason_ = Reason::start;
    sinceNs_ = receiveNs;
    limitNs_ = kStartNs;
}

void HeldRecords::beginSilence(const UntimedRecord& first, const ListClock& list, const SlaveClock& clock) {
    reason_ = Reason::silence;
    sinceNs_ = first.receiveNs;
    limitNs_ = evidenceNs(clock);
    list_ = list;
}

bool HeldRecords::add(const UntimedRecord& record, const std::uint8_t* data, std::size_t size) {
    if (records_.size() == kMostRecords || bytes_.size() + size > kMostBytes) return false;
    records_.push_back(record);
    records_.back().position = bytes_.size();
    bytes_.insert(bytes_.end(), data, data + size);
    return true;
}

bool HeldRecords::enough(const UntimedRecord& latest, const SlaveClock& clock) const {
    return latest.list == records_.front().list && heldUp(0, list_, clock).has_value();
}

/// A backlog that comes at once catches up with the receive time; an event goes on at its own pace.
std::optional<bool> HeldRecords::heldUp(std::size_t index, ListClock list, const SlaveClock& clock) const {
    const UntimedRecord& first = records_[index];
    const std::int64_t firstLag = clock.lagNs(clock.next(list, first.raw), first.receiveNs);
    for (std::size_t i = index; i < records_.size(); ++i) {
        const UntimedRecord& record = records_[i];
        if (record.list != first.list) continue;
        list.ticks = clock.next(list, record.raw);
        list.started = true;
        const std::int64_t lag = clock.lagNs(list.ticks, record.receiveNs);
        if (lag <= clock.longestLagNs() || firstLag - lag >= evidenceNs(clock)) return true;
        if (record.receiveNs - first.receiveNs >= evidenceNs(clock)) return false;
    }
    return std::nullopt;
}

void HeldRecords::findTicks(SlaveClock& clock) {
    SlaveClock scout = clock;
    std::int64_t least = std::numeric_limits<std::int64_t>::max();
    bool held = false;
    for (std::size_t i = 0; i < records_.size(); ++i) {
        UntimedRecord& record = records_[i];
        ListClock& list = scouts_[record.list];
        const std::int64_t lag = scout.lagNs(scout.next(list, record.raw), record.receiveNs);
        const bool late = lag > scout.longestLagNs();
        // Those of other lists, and the last ones, shared the way of those that tell.
        if (record.regular) held = late && heldUp(i, list, scout).value_or(held);
        record.ticks = late && held ? scout.followHeld(list, record.raw)
                                    : scout.follow(list, record.raw, record.receiveNs);
        scout.mapTicks(list, record.ticks, record.receiveNs);
        least = std::min(least, scout.offsetNs(record.ticks, record.receiveNs));
    }
    backlog_ = held;
    // A clock that began again meanwhile has more than one offset.
    if (reason_ == Reason::start && scout.generation() == 1) clock.expect(least);
}

void HeldRecords::clear() {
    records_.clear();
    bytes_.clear();
}

}  // namespace lm::xcp
