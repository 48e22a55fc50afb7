// The slave's DAQ timestamps on the host's steady clock.
//
// A slave stamps with a short counter of its own clock; the host sees the counter wrap, the two clocks drift,
// and frames arrive late and bunched. All lists of one slave share its clock and so one SlaveClock; each list
// keeps a ListClock of its own, because its counter must be followed from stamp to stamp.
//
// How the time is mapped. Host time = slave time + offset, where the offset follows the lower envelope of
// (receive time - slave time): the frames with the least delay tell where the slave's clock stands.
// - The smallest difference of the last two windows (each at least 2 s of host time and 16 stamps), less
//   50 us to guard against the next quicker frame, is the target. The offset moves towards it by at most
//   200 ppm of the slave time that passed (faster, in proportion, when it is more than 1 ms away, up to a
//   tenth), so that records keep the slave's own spacing and frames received in one bunch, after seconds
//   even, are as evenly spaced as they were sampled.
// - The first stamp sets the offset 500 us below its own difference, so that quicker frames which follow fall
//   under no record's time and the start is evenly spaced too; the slow approach then closes that gap.
// - A frame quicker than the offset says would lie in the future: the offset drops below it, by as much
//   again as it was too quick (500 us at most), so that one such frame is the last.
// - No guard is larger than an eighth of the counter's wrap. No time is later than the receive time.
// - A list's times never step back. Where the offset has dropped below them they go on at half their pace
//   until it is met, so that no two are equal.
// - Who has seen several stamps before the first is mapped tells the least difference among them (expect()),
//   which then sets the offset: those of a first bunch are as evenly spaced as any.
// - A counter that wrapped unseen (an event that paused, a one-byte counter): a time more than three quarters
//   of a wrap behind the receive time gets the missing whole wraps (follow()). Packets that were held up for
//   as long look alike; who knows that they were takes the stamp nearest to the latest (followHeld()).
// - A stamp less than 100 ms behind its list's last one came out of order; one further behind is taken
//   forward, nearly a whole wrap on, and so lies in the future.
// - A time more than a second in the future means that the slave's clock was set or began again. Two windows
//   whose least difference is more than half a second above the offset mean that it stood still. In both
//   cases the next stamp sets the offset as the first one did.
//
// Threads: one thread at a time (the receive thread). Lifetime: plain values.
#pragma once

#include <cstdint>
#include <limits>

namespace lm::xcp {

/// Where the timestamps of one DAQ list have got to.
struct ListClock {
    std::uint64_t ticks = 0;  ///< of the last stamp, wraps included; on the scale all lists share
    std::int64_t lastNs = 0;  ///< last mapped time
    bool started = false;
};

/// The running tick count after one more raw counter value; `modulus` is that of the counter, a power of two.
constexpr std::uint64_t advanceTicks(std::uint64_t ticks, std::uint32_t raw, std::uint64_t modulus) {
    return ticks + ((raw - ticks) & (modulus - 1));
}

class SlaveClock {
  public:
    /// `timestampSize` in bytes (1, 2 or 4); `tickNs` nanoseconds per tick. With either 0 the clock is not
    /// usable and map() must not be called.
    SlaveClock(std::uint8_t timestampSize, std::int64_t tickNs);

    bool usable() const { return usable_; }

    /// The host time in nanoseconds of a stamp received at `receiveNs`; never later than `receiveNs`.
    std::int64_t map(ListClock& list, std::uint32_t raw, std::int64_t receiveNs) {
        return mapTicks(list, follow(list, raw, receiveNs), receiveNs);
    }
    /// The same of a stamp whose wraps are known.
    std::int64_t mapTicks(ListClock& list, std::uint64_t ticks, std::int64_t receiveNs);

    /// The tick count of a stamp, wraps included: that of an event that may have paused, or of a packet that
    /// was held up.
    std::uint64_t follow(const ListClock& list, std::uint32_t raw, std::int64_t receiveNs) const;
    std::uint64_t followHeld(const ListClock& list, std::uint32_t raw) const;
    /// The count of the list's next stamp, if its counter has not wrapped unseen.
    std::uint64_t next(const ListClock& list, std::uint32_t raw) const;

    /// Receive time less slave time, and how far behind the receive time the stamp would be mapped.
    std::int64_t offsetNs(std::uint64_t ticks, std::int64_t receiveNs) const;
    std::int64_t lagNs(std::uint64_t ticks, std::int64_t receiveNs) const;
    /// A longer lag means that the counter wrapped unseen, or that the packet was held up.
    std::int64_t longestLagNs() const { return wrapNs_ - wrapNs_ / 4; }
    std::int64_t wrapNs() const { return wrapNs_; }

    /// The least offset of the stamps that are to come; counts for the first that is mapped.
    void expect(std::int64_t leastOffsetNs) { expectedNs_ = leastOffsetNs; }

    /// Changes when the offset was anchored again: times before and after do not tell how many cycles lie
    /// between.
    std::uint32_t generation() const { return generation_; }

  private:
    static constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::max();

    std::int64_t slaveNs(std::uint64_t ticks) const;
    std::uint64_t nearLatest(std::uint32_t raw) const;
    void anchor(std::int64_t offset);
    void track(std::int64_t offset, std::int64_t nowNs, std::int64_t receiveNs);
    void slew(std::int64_t elapsedNs);

    // Constant after construction.
    bool usable_;
    std::uint64_t modulus_ = 0;
    std::int64_t tickNs_ = 0;
    std::int64_t wrapNs_ = 0;
    std::int64_t guardNs_ = 0;
    std::int64_t firstGuardNs_ = 0;

    bool anchored_ = false;
    std::uint32_t generation_ = 0;
    std::uint64_t lastTicks_ = 0;     ///< of the latest stamp of any list
    std::int64_t latestSlaveNs_ = 0;  ///< up to which the offset has been moved
    std::int64_t offsetNs_ = 0;
    std::int64_t windowStartNs_ = 0;  ///< receive time
    std::uint32_t windowStamps_ = 0;
    std::int64_t windowLeast_ = kNone;
    std::int64_t previousLeast_ = kNone;
    std::int64_t expectedNs_ = kNone;
};

}  // namespace lm::xcp
