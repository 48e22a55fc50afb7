#include "session/outage_meter.h"

#include <algorithm>
#include <utility>

namespace lm::session {

void OutageMeter::addGap(std::int64_t lengthNs, std::int64_t receiveNs) {
    const std::lock_guard lock(mutex_);
    if (open_) {
        openNs_ += lengthNs;
    } else {
        latestGapNs_ = lengthNs;
        latestEndNs_ = receiveNs;
    }
}

void OutageMeter::begin(std::int64_t nowNs) {
    const std::lock_guard lock(mutex_);
    open_ = true;
    // A record may have come between the look at the count of records and this call.
    openNs_ = latestEndNs_ > nowNs - noticedWithinNs_ ? std::exchange(latestGapNs_, 0) : 0;
}

void OutageMeter::end(std::int64_t nowNs) {
    const std::lock_guard lock(mutex_);
    const std::int64_t last = lastNs_.load(std::memory_order_relaxed);
    beforeNs_ += openNs_ + std::max<std::int64_t>(nowNs - last, 0);
    lastNs_.store(std::max(last, nowNs), std::memory_order_relaxed);
    open_ = false;
    openNs_ = 0;
    ++ended_;
}

void OutageMeter::finish(std::int64_t nowNs, Stop stop, bool cyclic) {
    const std::lock_guard lock(mutex_);
    const std::int64_t silence = std::max<std::int64_t>(nowNs - lastNs_.load(std::memory_order_relaxed), 0);
    const bool isOutage =
        stop == Stop::unanswered ? silence >= leastGapNs_ : cyclic && silence >= noticedWithinNs_;
    if (stop == Stop::lost || open_) {
        upToEndNs_ = openNs_ + silence;
    } else if (isOutage) {
        upToEndNs_ = silence;
    }
}

std::int64_t OutageMeter::beforeReconnectionsNs() const {
    const std::lock_guard lock(mutex_);
    return beforeNs_;
}

std::int64_t OutageMeter::upToEndNs() const {
    const std::lock_guard lock(mutex_);
    return upToEndNs_;
}

std::uint64_t OutageMeter::ended() const {
    const std::lock_guard lock(mutex_);
    return ended_;
}

}  // namespace lm::session
