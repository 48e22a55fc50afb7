#include "xcp/daq_clock.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace lm::xcp {
namespace {

constexpr std::int64_t kUs = 1'000;
constexpr std::int64_t kMs = 1'000 * kUs;
constexpr std::int64_t kSecond = 1'000 * kMs;
constexpr std::int64_t kHostStart = 5'000 * kSecond;

/// A slave whose clock runs `ppm` faster than the host's, seen over a line with delays of 30 us and more.
struct Scene {
    Scene(std::uint8_t size, std::int64_t tickNs, double ppm = 0)
        : clock(size, tickNs),
          tick(tickNs),
          mask(size == 4 ? 0xFFFFFFFF : (1U << (8U * size)) - 1U),
          drift(ppm) {}

    /// Maps the sample taken at host time kHostStart + at and received `delay` later.
    std::int64_t sample(ListClock& list, std::int64_t at, std::int64_t delay) {
        const double slave = static_cast<double>(at + 3 * kSecond) * (1.0 + drift * 1e-6);
        const auto ticks = static_cast<std::uint64_t>(std::llround(slave / static_cast<double>(tick)));
        const std::int64_t receive = kHostStart + at + delay;
        const std::int64_t before = list.lastNs;
        const std::int64_t mapped = clock.map(list, static_cast<std::uint32_t>(ticks) & mask, receive);
        EXPECT_LE(mapped, receive) << "in the future at " << at;
        EXPECT_GE(mapped, before) << "stepped back at " << at;
        return mapped - kHostStart;
    }

    std::int64_t jitter() { return 30 * kUs + static_cast<std::int64_t>(exponential(random) * 60e3); }

    SlaveClock clock;
    std::int64_t tick;
    std::uint32_t mask;
    double drift;
    std::mt19937 random{1};
    std::exponential_distribution<double> exponential{1.0};
};

TEST(DaqClock, CounterWrapsAreAbsorbed) {
    EXPECT_EQ(advanceTicks(0xFF, 0x01, 0x100), 0x101U);
    EXPECT_EQ(advanceTicks(0x1'FFFF'FFFF, 0, std::uint64_t{1} << 32U), 0x2'0000'0000U);
    EXPECT_EQ(advanceTicks(0x123, 0x23, 0x100), 0x123U);
    EXPECT_FALSE(SlaveClock(0, 1).usable());
    EXPECT_FALSE(SlaveClock(4, 0).usable());
}

TEST(DaqClock, RecordsAreEvenlySpacedUnderJitterAndDriftBothWays) {
    for (const double ppm : {0.0, 100.0, -100.0}) {
        for (const std::uint8_t size : {std::uint8_t{2}, std::uint8_t{4}}) {
            Scene scene(size, kUs, ppm);
            ListClock fast;
            ListClock slow;
            std::int64_t previous = 0;
            std::int64_t uneven = 0;
            for (std::int64_t i = 0; i < 6'000; ++i) {
                const std::int64_t at = i * 10 * kMs;
                const std::int64_t mapped = scene.sample(fast, at, scene.jitter());
                if (i % 10 == 0) scene.sample(slow, at, scene.jitter());
                if (i > 0) uneven = std::max(uneven, std::abs(mapped - previous - 10 * kMs));
                previous = mapped;
                EXPECT_NEAR(static_cast<double>(mapped), static_cast<double>(at), 600e3)
                    << ppm << " at " << i;
            }
            // Ticks of 1 us, drift of 1 us and slewing of 2 us per cycle.
            EXPECT_LE(uneven, 5 * kUs) << ppm << " ppm, " << int{size} << " bytes";
        }
    }
}

TEST(DaqClock, BunchedFramesAreSpreadAgain) {
    for (const std::int64_t stall : {500 * kMs, 7 * kSecond}) {
        Scene scene(4, kUs);
        ListClock list;
        for (std::int64_t i = 0; i < 1'000; ++i) {
            scene.sample(list, i * 10 * kMs, scene.jitter());
        }
        const std::uint32_t generation = scene.clock.generation();
        const std::int64_t stalledUntil = 10 * kSecond + stall;
        std::int64_t previous = list.lastNs - kHostStart;
        for (std::int64_t i = 1'000; i < 3'000; ++i) {
            const std::int64_t at = i * 10 * kMs;
            const std::int64_t backlog = stalledUntil + (i - 1'000) * 100 * kUs;
            const std::int64_t mapped = scene.sample(list, at, std::max(scene.jitter(), backlog - at));
            EXPECT_NEAR(static_cast<double>(mapped - previous), 10e6, 4e3) << stall << " at " << i;
            previous = mapped;
        }
        EXPECT_EQ(scene.clock.generation(), generation) << "a backlog is not a clock that stood still";
    }
}

TEST(DaqClock, ALateFirstFrameDisturbsOnlyTheStart) {
    Scene scene(4, kUs);
    ListClock list;
    scene.sample(list, 0, 5 * kMs);
    std::int64_t previous = scene.sample(list, 10 * kMs, 100 * kUs);
    for (std::int64_t i = 2; i < 500; ++i) {
        const std::int64_t mapped = scene.sample(list, i * 10 * kMs, scene.jitter());
        EXPECT_NEAR(static_cast<double>(mapped - previous), 10e6, 4e3) << i;
        previous = mapped;
    }
}

TEST(DaqClock, MissingWrapsComeFromTheReceiveTime) {
    // 256 us, 65.5 ms and 71 minutes to a wrap; an event of 100 ms that pauses for longer than the wrap.
    const struct {
        std::uint8_t size;
        std::int64_t pause;
    } rows[] = {{1, kSecond}, {2, 10 * kSecond}, {4, 4'400 * kSecond}};
    for (const auto& row : rows) {
        Scene scene(row.size, kUs);
        ListClock list;
        for (std::int64_t i = 0; i < 100; ++i) {
            const std::int64_t at = i * 100 * kMs + (i >= 50 ? row.pause : 0);
            EXPECT_NEAR(static_cast<double>(scene.sample(list, at, scene.jitter())), static_cast<double>(at),
                        600e3)
                << int{row.size} << " bytes at " << i;
        }
    }
}

TEST(DaqClock, AnchorsAnewWhenTheSlaveRestartsOrItsClockStoodStill) {
    SlaveClock clock(4, kUs);
    ListClock list;
    const auto feed = [&](std::int64_t slaveFrom, std::int64_t hostFrom, int count) {
        std::int64_t lag = 0;
        for (int i = 0; i < count; ++i) {
            const std::int64_t receive = kHostStart + hostFrom + i * 10 * kMs;
            const auto raw = static_cast<std::uint32_t>(slaveFrom / kUs + i * 10'000);
            lag = receive - clock.map(list, raw, receive);
        }
        return lag;
    };
    EXPECT_LE(feed(2'000 * kSecond, 0, 100), kMs);
    EXPECT_LE(feed(0, 3 * kSecond, 1), kMs);  // restarted
    EXPECT_LE(feed(10 * kMs, 3 * kSecond + 10 * kMs, 100), kMs);
    EXPECT_GE(feed(kSecond + 10 * kMs, 60 * kSecond, 1), 50 * kSecond);  // late, or stood still?
    EXPECT_LE(feed(kSecond + 20 * kMs, 60 * kSecond + 10 * kMs, 600), kMs);
}

TEST(DaqClock, HostileStampsStayOrderedAndInThePast) {
    std::mt19937_64 random{1};
    for (const std::uint8_t size : {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{4}}) {
        for (const std::int64_t tick : {std::int64_t{1}, kMs, 65'535 * kSecond}) {
            SlaveClock clock(size, tick);
            ListClock list;
            std::int64_t receive = kHostStart;
            for (int i = 0; i < 2'000; ++i) {
                receive += static_cast<std::int64_t>(random() % (2 * kSecond));
                const std::int64_t before = list.lastNs;
                const std::int64_t mapped = clock.map(list, static_cast<std::uint32_t>(random()), receive);
                ASSERT_LE(mapped, receive) << int{size} << " bytes of " << tick;
                ASSERT_GE(mapped, before) << int{size} << " bytes of " << tick;
            }
        }
    }
}

TEST(DaqClock, AStampOutOfOrderChangesNothing) {
    Scene scene(4, kUs);
    ListClock list;
    for (const std::int64_t at : {0, 10, 20, 40, 30, 50, 60}) {
        scene.sample(list, at * kMs, (at == 30 ? 10'100 : 50) * kUs);
    }
    EXPECT_NEAR(static_cast<double>(scene.sample(list, 70 * kMs, 50 * kUs)), 70e6, 600e3);
}

}  // namespace
}  // namespace lm::xcp
