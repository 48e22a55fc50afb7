#include <algorithm>
#include <cmath>
#include <functional>
#include <map>

#include <gtest/gtest.h>

#include "xcp/daq_decoder.h"

namespace lm::xcp {
namespace {

constexpr std::int64_t kMs = 1'000'000;
constexpr std::int64_t kHostStart = 1'000'000 * kMs;

struct Times final : IDaqRecordSink {
    void onRecord(const DaqRecord& record) override {
        EXPECT_LE(record.timeNs(), record.receiveTimeNs);
        lists[record.listIndex].push_back(record.timeNs() - kHostStart);
    }
    std::map<std::size_t, std::vector<std::int64_t>> lists;
};

/// Samples of lists with these cycles, in the order of their arrival; both times in milliseconds.
struct Sample {
    double taken;
    double arrives;
    std::size_t list;
};
std::vector<Sample> samples(const std::vector<int>& cyclesMs, int untilMs,
                            const std::function<double(double taken, std::size_t list)>& arrival) {
    std::vector<Sample> all;
    for (std::size_t list = 0; list < cyclesMs.size(); ++list) {
        for (int at = cyclesMs[list]; at <= untilMs; at += cyclesMs[list]) {
            const double arrives = arrival(at, list);
            if (arrives >= 0) all.push_back({static_cast<double>(at), arrives + 0.05, list});
        }
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const Sample& a, const Sample& b) { return a.arrives < b.arrives; });
    return all;
}

/// Held up from `begin` to `end`, then all at once.
std::function<double(double, std::size_t)> heldUp(double begin, double end) {
    return
        [=](double taken, std::size_t) { return taken > begin && taken <= end ? end + taken * 1e-4 : taken; };
}

TEST(HeldRecords, EveryRecordLiesWhereItWasTaken) {
    const auto bunches = [](double taken, std::size_t) {
        return (std::floor(taken / 250) + 1) * 250 + taken * 1e-4;
    };
    const auto shifted = [=](double taken, std::size_t list) {
        return list == 0 ? bunches(taken, list) : taken < 280 ? -1.0 : taken;
    };
    const auto pause = [](double from, double to) {
        return [=](double taken, std::size_t) { return taken > from && taken < to ? -1.0 : taken; };
    };
    const struct {
        const char* what;
        std::uint8_t stampSize;  ///< of 1 us
        std::vector<int> cyclesMs;
        std::function<double(double, std::size_t)> arrival;  ///< below 0: there was no such sample
        std::uint64_t missed;
    } rows[] = {
        {"bunches of 250 ms", 4, {1, 10}, bunches, 0},
        {"one event bunched, the other later and at once", 4, {1, 10}, shifted, 0},
        {"bunches longer than a wrap", 2, {1, 10}, bunches, 0},
        {"held up for three wraps", 2, {1, 10}, heldUp(1000, 1200), 0},
        {"held up for 30 wraps", 2, {10}, heldUp(1000, 3000), 0},
        {"held up with a slow event", 2, {5, 100}, heldUp(1000, 1500), 0},
        {"an event that paused", 2, {10}, pause(1000, 1200), 19},
        {"for 30 wraps", 2, {1}, pause(1000, 3000), 1999},
        {"slower than a wrap", 2, {100}, pause(1000, 2000), 9},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        DaqCapabilities slave{.dynamicConfiguration = true,
                              .identification = DaqIdentification::relativeByte,
                              .timestampSize = row.stampSize,
                              .timestampFixed = true,
                              .tickNs = 1000};
        std::vector<DaqSignal> signals;
        for (std::size_t i = 0; i < row.cyclesMs.size(); ++i) {
            const auto event = static_cast<std::uint16_t>(i);
            slave.events.push_back({.number = event, .cycleNs = row.cyclesMs[i] * kMs});
            signals.push_back({{event, 0}, 1, event});
        }
        DaqDecoder decoder(planDaq(signals, slave, {.maxDto = 8}).value(), slave);
        Times times;
        decoder.setSink(&times);
        decoder.holdBack();
        std::map<std::size_t, std::vector<double>> taken;
        for (const Sample& sample : samples(row.cyclesMs, 3999, row.arrival)) {
            const auto ticks = static_cast<std::uint32_t>(sample.taken * 1000) + 0xFFF0;
            std::vector<std::uint8_t> dto = {0, static_cast<std::uint8_t>(sample.list)};
            for (unsigned byte = 0; byte < row.stampSize; ++byte)
                dto.push_back(static_cast<std::uint8_t>(ticks >> (8 * byte)));
            dto.push_back(0xAB);
            const auto received = kHostStart + static_cast<std::int64_t>(sample.arrives * 1e6);
            decoder.onDto(dto.data(), dto.size(), {received, 0});
            taken[sample.list].push_back(sample.taken);
        }
        decoder.settle(std::numeric_limits<std::int64_t>::max());
        for (const auto& [list, expected] : taken) {
            const auto& got = times.lists[list];
            ASSERT_EQ(got.size(), expected.size());
            for (std::size_t i = 0; i < got.size(); ++i) {
                ASSERT_NEAR(static_cast<double>(got[i]) / 1e6, expected[i], 1.1) << "list " << list;
                ASSERT_TRUE(i == 0 || got[i] > got[i - 1]) << "list " << list;
            }
        }
        EXPECT_EQ(decoder.counters().missedCycles, row.missed);
    }
}

TEST(HeldRecords, WaitUntilSettled) {
    const DaqCapabilities slave{.dynamicConfiguration = true,
                                .identification = DaqIdentification::relativeByte,
                                .timestampSize = 4,
                                .timestampFixed = true,
                                .tickNs = 1000,
                                .events = {{.number = 0}}};
    const std::vector<DaqSignal> signals = {{{0, 0}, 1, 0}};
    DaqDecoder decoder(planDaq(signals, slave, {.maxDto = 8}).value(), slave);
    Times times;
    decoder.setSink(&times);
    decoder.holdBack();
    const std::array<std::uint8_t, 7> dto{};
    decoder.onDto(dto.data(), dto.size(), {kHostStart, 0});
    EXPECT_EQ(decoder.counters().records, 1U) << "received all the same";
    decoder.settle(kHostStart + 499 * kMs);
    EXPECT_TRUE(times.lists.empty());
    decoder.settle(kHostStart + 500 * kMs);
    EXPECT_EQ(times.lists[0].size(), 1U);
}

}  // namespace
}  // namespace lm::xcp
