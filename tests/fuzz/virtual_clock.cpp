#include "virtual_clock.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <pthread.h>

namespace lm::fuzz {

std::int64_t VirtualClock::nowNs = 1'000'000'000;
std::function<std::int64_t()> VirtualClock::nextNs = [] { return std::numeric_limits<std::int64_t>::max(); };
std::function<void()> VirtualClock::happen = [] {};

}  // namespace lm::fuzz

// These two take the places of the C and C++ libraries' own.

std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
    return time_point(duration(lm::fuzz::VirtualClock::nowNs));
}

extern "C" int pthread_cond_clockwait(pthread_cond_t*, pthread_mutex_t* mutex, clockid_t,
                                      const timespec* until) {
    using lm::fuzz::VirtualClock;
    const std::int64_t limit = std::int64_t{1'000'000'000} * until->tv_sec + until->tv_nsec;
    const std::int64_t next = VirtualClock::nextNs();
    VirtualClock::nowNs = std::max(VirtualClock::nowNs, std::min(next, limit));
    if (next > limit) return ETIMEDOUT;
    pthread_mutex_unlock(mutex);
    VirtualClock::happen();
    pthread_mutex_lock(mutex);
    return 0;
}
