#include "xcp/daq_clock.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace lm::xcp {

namespace {

constexpr std::int64_t kMillisecond = 1'000'000;
constexpr std::int64_t kSecond = 1'000 * kMillisecond;
constexpr std::int64_t kFirstGuardNs = kMillisecond / 2;
constexpr std::int64_t kGuardNs = kMillisecond / 20;
constexpr std::int64_t kWindowNs = 2 * kSecond;
constexpr std::uint32_t kWindowStamps = 16;
constexpr std::int64_t kSlewDivisor = 5'000;       // 200 ppm
constexpr std::int64_t kSteepestSlewDivisor = 10;  // so that no list seems to skip a cycle
constexpr std::int64_t kProportionalSlewFromNs =
    kMillisecond;  // where 1/kCatchUpDivisor of it per second begins
constexpr std::int64_t kFutureIsRestartNs = kSecond;
constexpr std::int64_t kMostOutOfOrderNs = kSecond / 10;
constexpr std::int64_t kStandstillNs = kSecond / 2;

/// Slave times of absurd tick lengths may pass 64 bits; they wrap instead of being undefined.
std::int64_t difference(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

std::int64_t sum(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

}  // namespace

SlaveClock::SlaveClock(std::uint8_t timestampSize, std::int64_t tickNs)
    : usable_(timestampSize > 0 && timestampSize <= 4 && tickNs > 0), tickNs_(tickNs) {
    if (!usable_) return;
    modulus_ = std::uint64_t{1} << (8U * timestampSize);
    const double wrap = static_cast<double>(modulus_) * static_cast<double>(tickNs);
    wrapNs_ = static_cast<std::int64_t>(std::min(wrap, 4e18));
    guardNs_ = std::min(kGuardNs, wrapNs_ / 8);
    firstGuardNs_ = std::min(kFirstGuardNs, wrapNs_ / 8);
}

std::int64_t SlaveClock::slaveNs(std::uint64_t ticks) const {
    return static_cast<std::int64_t>(ticks * static_cast<std::uint64_t>(tickNs_));
}

std::int64_t SlaveClock::offsetNs(std::uint64_t ticks, std::int64_t receiveNs) const {
    return difference(receiveNs, slaveNs(ticks));
}

std::int64_t SlaveClock::lagNs(std::uint64_t ticks, std::int64_t receiveNs) const {
    return anchored_ ? difference(offsetNs(ticks, receiveNs), offsetNs_) : 0;
}

std::uint64_t SlaveClock::next(const ListClock& list, std::uint32_t raw) const {
    // A list's first stamp lies near the latest stamp of the others, before or behind it.
    return list.started ? advanceTicks(list.ticks, raw, modulus_) : nearLatest(raw);
}

std::uint64_t SlaveClock::nearLatest(std::uint32_t raw) const {
    return advanceTicks(lastTicks_ - std::min(lastTicks_, modulus_ / 2), raw, modulus_);
}

std::uint64_t SlaveClock::followHeld(const ListClock& list, std::uint32_t raw) const {
    const std::uint64_t ticks = nearLatest(raw);
    return list.started && ticks < list.ticks ? advanceTicks(list.ticks, raw, modulus_) : ticks;
}

std::uint64_t SlaveClock::follow(const ListClock& list, std::uint32_t raw, std::int64_t receiveNs) const {
    std::uint64_t ticks = next(list, raw);
    if (!anchored_) return ticks;

    const std::int64_t lag = lagNs(ticks, receiveNs);
    if (lag > longestLagNs()) {
        ticks += (static_cast<std::uint64_t>(lag) + static_cast<std::uint64_t>(wrapNs_ / 4)) /
                 static_cast<std::uint64_t>(wrapNs_) * modulus_;
    } else if (lag < -(wrapNs_ / 2)) {
        // Out of order rather than nearly a whole wrap on. A clock that was set back, or began again, is
        // followed as it stands: the offset is anchored again below.
        const std::uint64_t ahead = std::uint64_t{0} - static_cast<std::uint64_t>(lag);
        const auto wraps =
            (ahead + static_cast<std::uint64_t>(wrapNs_ / 2)) / static_cast<std::uint64_t>(wrapNs_);
        const std::uint64_t back = wraps * modulus_;
        const std::int64_t latest = slaveNs(list.started ? list.ticks : lastTicks_);
        if (back <= ticks && difference(latest, slaveNs(ticks - back)) < kMostOutOfOrderNs) ticks -= back;
    }
    return ticks;
}

std::int64_t SlaveClock::mapTicks(ListClock& list, std::uint64_t ticks, std::int64_t receiveNs) {
    const std::int64_t now = slaveNs(ticks);
    const std::int64_t passed = list.started ? difference(now, slaveNs(list.ticks)) : 0;
    list.ticks = ticks;
    const std::int64_t offset = difference(receiveNs, now);
    if (!anchored_ || difference(offsetNs_, offset) > kFutureIsRestartNs) {
        const std::int64_t least = std::exchange(expectedNs_, kNone);
        anchor(std::min(offset, least));
        windowLeast_ = least;
        previousLeast_ = kNone;
        windowStartNs_ = receiveNs;
        latestSlaveNs_ = now;
    }
    lastTicks_ = list.ticks;
    track(offset, now, receiveNs);

    std::int64_t mapped = std::min(sum(now, offsetNs_), receiveNs);
    if (list.started) {
        const std::int64_t halfPace = sum(list.lastNs, std::max<std::int64_t>(passed, 0) / 2);
        if (mapped <= list.lastNs) mapped = std::min(std::max(list.lastNs, halfPace), receiveNs);
    }
    list.started = true;
    list.lastNs = mapped;
    return mapped;
}

void SlaveClock::anchor(std::int64_t offset) {
    anchored_ = true;
    ++generation_;
    offsetNs_ = difference(offset, firstGuardNs_);
    windowStamps_ = 0;
    windowLeast_ = kNone;
}

void SlaveClock::track(std::int64_t offset, std::int64_t nowNs, std::int64_t receiveNs) {
    windowLeast_ = std::min(windowLeast_, offset);
    ++windowStamps_;
    const std::int64_t quicker = difference(offsetNs_, offset);
    if (quicker > 0) offsetNs_ = difference(offset, std::min(quicker, firstGuardNs_));

    const std::int64_t elapsed = difference(nowNs, latestSlaveNs_);
    if (elapsed > 0) {
        slew(elapsed);
        latestSlaveNs_ = nowNs;
    }
    // Windows are cut by the host's time: a backlog that arrives at once, seconds of slave time, is a short
    // part of one.
    if (difference(receiveNs, windowStartNs_) >= kWindowNs && windowStamps_ >= kWindowStamps) {
        const std::int64_t least = windowLeast_;
        if (previousLeast_ != kNone && difference(std::min(least, previousLeast_), offsetNs_) > kStandstillNs)
            anchor(least);
        previousLeast_ = least;
        windowLeast_ = kNone;
        windowStamps_ = 0;
        windowStartNs_ = receiveNs;
    }
}

void SlaveClock::slew(std::int64_t elapsedNs) {
    const std::int64_t target = difference(std::min(windowLeast_, previousLeast_), guardNs_);
    const std::int64_t distance = difference(target, offsetNs_);
    if (distance == 0) return;
    const double size = std::abs(static_cast<double>(distance));
    const double elapsed = static_cast<double>(elapsedNs);
    double step = elapsed / static_cast<double>(kSlewDivisor);
    if (size > static_cast<double>(kProportionalSlewFromNs)) {
        step *= size / static_cast<double>(kProportionalSlewFromNs);
        step = std::min(step, elapsed / static_cast<double>(kSteepestSlewDivisor));
    }
    if (step >= size) {
        offsetNs_ = target;
    } else {
        offsetNs_ = sum(offsetNs_, static_cast<std::int64_t>(distance < 0 ? -step : step));
    }
}

}  // namespace lm::xcp
