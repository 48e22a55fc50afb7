#include "xcp/daq_clock.h"

#include <algorithm>
#include <cmath>
#include <random>

#include <gtest/gtest.h>

namespace lm::xcp {
namespace {

constexpr std::int64_t kUs = 1'000;
constexpr std::int64_t kClockMs = 1'000 * kUs;
constexpr std::int64_t kSecond = 1'000 * kClockMs;
constexpr std::int64_t kClockHostStart = 5'000 * kSecond;

/// One list of a clock; every stamp must map to the past and never step back.
std::int64_t mapped(SlaveClock& clock, ListClock& list, std::uint64_t ticks, std::int64_t receive) {
    const std::int64_t before = list.lastNs;
    const std::int64_t result = clock.map(list, static_cast<std::uint32_t>(ticks), receive);
    EXPECT_LE(result, receive) << "in the future";
    EXPECT_GE(result, before) << "stepped back";
    return result;
}

// A slave of 1 us ticks that drifts by `ppm`, seen over a line with delays of 30 us and more.
TEST(DaqClock, RecordsLieEvenlyWhereTheyWereTaken) {
    const struct {
        const char* what;
        std::uint8_t size;
        std::int64_t cycle;
        int count;
        double ppm;
        std::int64_t pause;       ///< without a record, half way
        std::int64_t stall;       ///< of the line, from half way on: then the backlog comes at once
        std::int64_t firstDelay;  ///< of the very first frame
    } rows[] = {
        {"jitter", 2, 10 * kClockMs, 6'000, 0, 0, 0, 0},
        {"fast", 2, 10 * kClockMs, 6'000, 100, 0, 0, 0},
        {"slow", 4, 10 * kClockMs, 6'000, -100, 0, 0, 0},
        {"late first frame", 4, 10 * kClockMs, 500, 0, 0, 0, 5 * kClockMs},
        {"backlog", 4, 10 * kClockMs, 3'000, 0, 0, 500 * kClockMs, 0},
        {"long backlog", 4, 10 * kClockMs, 3'000, 0, 0, 7 * kSecond, 0},
        {"wraps of 256 us", 1, 100 * kClockMs, 100, 0, kSecond, 0, 0},
        {"wraps of 65.5 ms", 2, 100 * kClockMs, 100, 0, 10 * kSecond, 0, 0},
        {"wraps of 71 minutes", 4, 100 * kClockMs, 100, 0, 4'400 * kSecond, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        SlaveClock clock(row.size, kUs);
        ListClock list;
        ListClock tenth;
        std::mt19937 random{1};
        std::exponential_distribution<double> exponential{1.0 / 60e3};
        std::int64_t previous = 0;
        std::int64_t uneven = 0;
        std::int64_t wrong = 0;
        for (int i = 0; i < row.count; ++i) {
            const int late = i - row.count / 2;
            const std::int64_t at = i * row.cycle + (late >= 0 ? row.pause : 0);
            std::int64_t delay = 30 * kUs + static_cast<std::int64_t>(exponential(random));
            if (late >= 0) delay = std::max(delay, row.stall + late * (100 * kUs - row.cycle));
            if (i == 0) delay += row.firstDelay;
            const double slave = static_cast<double>(at + 3 * kSecond) * (1.0 + row.ppm * 1e-6);
            const auto ticks = static_cast<std::uint64_t>(std::llround(slave / 1e3)) &
                               ((std::uint64_t{1} << (8 * row.size)) - 1);
            const std::int64_t result =
                mapped(clock, list, ticks, kClockHostStart + at + delay) - kClockHostStart;
            if (i % 10 == 0) mapped(clock, tenth, ticks, kClockHostStart + at + delay);
            if (i > 0 || row.firstDelay == 0) wrong = std::max(wrong, std::abs(result - at));
            if (i > 1) uneven = std::max(uneven, std::abs(result - previous - row.cycle));
            previous = result;
        }
        EXPECT_LE(wrong, 600 * kUs);
        // Ticks of 1 us, drift of 1 us and slewing of 2 us per 10 ms.
        EXPECT_LE(uneven, row.pause == 0 ? 5 * kUs : row.pause + kClockMs);
        EXPECT_EQ(clock.generation(), 1U) << "none of this is a clock that began anew or stood still";
    }
}

TEST(DaqClock, AnchorsAnewWhenTheSlaveRestartsOrItsClockStoodStill) {
    SlaveClock clock(4, kUs);
    ListClock list;
    const auto feed = [&](std::int64_t slaveFrom, std::int64_t hostFrom, int count) {
        std::int64_t lag = 0;
        for (int i = 0; i < count; ++i) {
            const std::int64_t receive = kClockHostStart + hostFrom + i * 10 * kClockMs;
            const auto ticks = static_cast<std::uint64_t>(slaveFrom / kUs + i * 10'000);
            lag = receive - mapped(clock, list, ticks, receive);
        }
        return lag;
    };
    EXPECT_LE(feed(2'000 * kSecond, 0, 100), kClockMs);
    EXPECT_LE(feed(0, 3 * kSecond, 1), kClockMs);  // restarted
    EXPECT_LE(feed(10 * kClockMs, 3 * kSecond + 10 * kClockMs, 100), kClockMs);
    EXPECT_GE(feed(kSecond + 10 * kClockMs, 60 * kSecond, 1), 50 * kSecond);  // late, or stood still?
    EXPECT_LE(feed(kSecond + 20 * kClockMs, 60 * kSecond + 10 * kClockMs, 600), kClockMs);
    EXPECT_LE(feed(6'600 * kClockMs, 66'010 * kClockMs, 1), kClockMs);  // set back by 0.42 s
    EXPECT_LE(feed(6'610 * kClockMs, 66'020 * kClockMs, 100), kClockMs);
}

TEST(DaqClock, AStampOutOfOrderChangesNothing) {
    SlaveClock clock(4, kUs);
    ListClock list;
    std::int64_t last = 0;
    for (const std::int64_t at : {0, 10, 20, 40, 30, 50, 60, 70}) {
        const std::int64_t delay = (at == 30 ? 10'100 : 50) * kUs;
        last = mapped(clock, list, static_cast<std::uint64_t>(at * 1'000),
                      kClockHostStart + at * kClockMs + delay);
    }
    EXPECT_NEAR(static_cast<double>(last - kClockHostStart), 70e6, 600e3);
}

}  // namespace
}  // namespace lm::xcp
