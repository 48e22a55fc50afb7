// How long a measurement was without samples: before each reconnection, and up to its end.
//
// An outage is measured by the times of the records around it, not by when it was noticed: an ECU that was
// out of reach may send what it still had in its queue, or run its old lists again, before it is connected
// again. All gaps between such records belong to the outage.
//
// Threads: onRecord() on the receive thread (one thread at a time); begin() and end() on the supervisor's;
// start() before both, finish() after both; the totals from any thread. Lifetime: a plain value of its owner.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

namespace lm::session {

class OutageMeter {
  public:
    /// What the ECU made of the stop: a silence counts the sooner the less is known to listen.
    enum class Stop : std::uint8_t {
        answered,
        unanswered,
        lost,  ///< there was no connection any more
    };

    /// Times in nanoseconds on the host's steady clock. Less than `leastGapNs` between two records is no gap;
    /// `noticedWithinNs` is the longest time after which an outage is noticed.
    OutageMeter(std::int64_t leastGapNs, std::int64_t noticedWithinNs)
        : leastGapNs_(leastGapNs), noticedWithinNs_(noticedWithinNs) {}

    void start(std::int64_t nowNs) { lastNs_ = nowNs; }

    void onRecord(std::int64_t timeNs, std::int64_t receiveNs) {
        const std::int64_t last = lastNs_.load(std::memory_order_relaxed);
        if (timeNs <= last) return;
        lastNs_.store(timeNs, std::memory_order_relaxed);
        if (timeNs - last >= leastGapNs_) [[unlikely]]
            addGap(timeNs - last, receiveNs);
    }

    /// The connection was found lost.
    void begin(std::int64_t nowNs);
    /// The lists run again.
    void end(std::int64_t nowNs);
    /// The measurement ends. When the stop was answered, a silence of `noticedWithinNs` is an outage if
    /// samples were due (`cyclic`); when it was not, any gap is.
    void finish(std::int64_t nowNs, Stop stop, bool cyclic);

    /// Time of the latest record, or of the start.
    std::int64_t latestNs() const { return lastNs_.load(std::memory_order_relaxed); }
    std::int64_t beforeReconnectionsNs() const;
    std::int64_t upToEndNs() const;
    /// Outages that ended.
    std::uint64_t ended() const;

  private:
    void addGap(std::int64_t lengthNs, std::int64_t receiveNs);

    const std::int64_t leastGapNs_;
    const std::int64_t noticedWithinNs_;
    std::atomic<std::int64_t> lastNs_{0};  ///< time of the latest record

    mutable std::mutex mutex_;  // everything below
    bool open_ = false;
    std::int64_t openNs_ = 0;       ///< gaps of the outage that is open
    std::int64_t latestGapNs_ = 0;  ///< outside of outages: the latest gap
    std::int64_t latestEndNs_ = 0;  ///< and when it was over
    std::int64_t beforeNs_ = 0;
    std::int64_t upToEndNs_ = 0;
    std::uint64_t ended_ = 0;
};

}  // namespace lm::session
