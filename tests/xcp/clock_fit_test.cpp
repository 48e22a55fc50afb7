#include "xcp/clock_fit.h"

#include <cmath>
#include <random>

#include <gtest/gtest.h>

namespace lm::xcp {
namespace {

constexpr std::int64_t kFitMs = 1'000'000;
constexpr std::int64_t kOffset = 7'000'000'000'000;

/// Stamps each millisecond of a clock that is fast by `ppm`, received 20 us late at best, some of them by
/// far.
void feed(ClockFit& fit, double ppm, double seconds, std::uint32_t generation = 1, std::int64_t beginNs = 0) {
    std::mt19937 random(7);  // NOLINT(cert-msc51-cpp): the same delays in each run
    std::exponential_distribution<double> usual(1 / 100e3);
    std::uniform_int_distribution<int> rare(0, 999);
    for (std::int64_t at = 0; at < std::llround(seconds * 1e3); ++at) {
        const std::int64_t host = beginNs + at * kFitMs;
        const std::int64_t held = rare(random) < 300 && at % 4000 < 700 ? 30 * kFitMs : 0;
        const auto slave = static_cast<std::int64_t>(static_cast<double>(at * kFitMs) * (1 + ppm / 1e6));
        const std::int64_t receive = host + 20'000 + std::llround(usual(random)) + held;
        fit.add(receive - slave + kOffset - beginNs, receive, generation);
    }
}

TEST(ClockFit, FindsDriftAndOffset) {
    struct Row {
        double ppm, seconds, within;
    };
    for (const Row& row : {Row{50, 10, 2}, Row{-50, 10, 2}, Row{0, 10, 2}, Row{1000, 10, 2}, Row{50, 2, 12},
                           Row{50, 600, 0.1}, Row{-3, 600, 0.1}}) {
        ClockFit fit;
        EXPECT_FALSE(fit.figures());
        feed(fit, row.ppm, row.seconds);
        const auto found = fit.figures();
        ASSERT_TRUE(found);
        EXPECT_NEAR(found->driftPpm, row.ppm, row.within) << row.seconds;
        EXPECT_NEAR(static_cast<double>(found->spanNs), row.seconds * 1e9, row.seconds * 1e8);
        const double atEnd = static_cast<double>(kOffset) - row.ppm * row.seconds * 1e3;
        EXPECT_NEAR(static_cast<double>(found->offsetNs), atEnd + 20e3,
                    30e3 + std::fabs(row.ppm) * row.seconds * 60);
        EXPECT_LT(found->residualNs, 60e3);
    }
}

TEST(ClockFit, BeginsAgainWithTheClock) {
    ClockFit fit;
    feed(fit, 50, 5);
    feed(fit, -200, 5, 2, 6'000 * kFitMs);
    ASSERT_TRUE(fit.figures());
    EXPECT_NEAR(fit.figures()->driftPpm, -200, 5);
    EXPECT_LT(fit.figures()->spanNs, 5'100 * kFitMs);
}

}  // namespace
}  // namespace lm::xcp
