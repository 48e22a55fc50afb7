// A master's clock that moves only when the master waits, and then at once: to the next thing that happens.
//
// Threads: the test's single one plays all parts. Lifetime: events own what they capture.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>

#include "xcp/master_options.h"

namespace lm::test {

class VirtualClock final : public xcp::IMasterClock {
  public:
    TimePoint now() override { return TimePoint(std::chrono::nanoseconds(nowNs_)); }
    void wait(std::unique_lock<std::mutex>& lock, std::condition_variable&, TimePoint until) override {
        const std::int64_t limit = until.time_since_epoch().count();
        if (events_.empty() || events_.begin()->first > limit) {
            nowNs_ = std::max(nowNs_, limit);
            return;
        }
        auto event = events_.extract(events_.begin());
        nowNs_ = std::max(nowNs_, event.key());
        lock.unlock();
        event.mapped()();
        lock.lock();
    }

    std::int64_t nowNs() const { return nowNs_; }
    /// Of two events at one time the one added first comes first.
    void at(std::int64_t timeNs, std::function<void()> event) { events_.emplace(timeNs, std::move(event)); }
    /// The time of the last event to come, or now.
    std::int64_t lastNs() const { return events_.empty() ? nowNs_ : events_.rbegin()->first; }
    bool idle() const { return events_.empty(); }
    void forget() { events_.clear(); }

  private:
    std::int64_t nowNs_ = 1'000'000'000;
    std::multimap<std::int64_t, std::function<void()>> events_;
};

}  // namespace lm::test
