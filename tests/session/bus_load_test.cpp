#include "session/bus_load.h"

#include <gtest/gtest.h>

namespace lm::session {
namespace {

constexpr std::uint64_t kMs = 1'000'000;

LoadInput oneOdt(std::uint32_t bytes, std::uint64_t cycleNs, bool timestamp = false) {
    return {{{cycleNs, 1, timestamp, {bytes}}}, 0, 2};
}

TEST(BusLoad, CanFramesMatchHandWorkedTimes) {
    const struct {
        CanTiming timing;
        std::uint32_t payload;  // without the one-byte PID
        bool timestamp;
        double bitTimes;  // at 500 kbit/s, where the data phase runs four times as fast
    } rows[] = {
        // Classic, 8 bytes: (64 + 33) / 4 = 24 stuff bits, 64 + 47 others; 3 bytes: (24 + 33) / 4 = 14.
        {{500'000, 0, false, false}, 7, false, 24 + 64 + 47},
        {{500'000, 0, false, false}, 2, false, 14 + 24 + 47},
        {{500'000, 0, false, true}, 2, false, 24 + 64 + 47},
        // Extended: (64 + 53) / 4 = 29, (8 + 53) / 4 = 15.
        {{500'000, 0, true, false}, 7, false, 29 + 64 + 67},
        {{500'000, 0, true, false}, 0, false, 15 + 8 + 67},
        // FD: length, CRC and ten more bits, a tenth for stuffing.
        {{500'000, 2'000'000, false, false}, 7, false, (64 + 17 + 10) * 1.1 / 4 + 34.1},
        {{500'000, 2'000'000, false, false}, 16, false, (160 + 21 + 10) * 1.1 / 4 + 34.1},
        {{500'000, 2'000'000, true, false}, 63, false, (512 + 21 + 10) * 1.1 / 4 + 55},
        {{500'000, 2'000'000, false, true}, 1, false, (512 + 21 + 10) * 1.1 / 4 + 34.1},
    };
    for (const auto& row : rows) {
        const auto estimate = estimateCanLoad(oneOdt(row.payload, 10 * kMs, row.timestamp), row.timing);
        EXPECT_NEAR(estimate.fraction, 100 * row.bitTimes / 500'000, 1e-12) << row.payload;
        EXPECT_NEAR(estimate.bitsPerSecond, 100 * row.bitTimes, 1e-6);
    }
}

TEST(BusLoad, SerialFramesCountStuffingAndFraming) {
    // 9 bytes on the wire at 1 kHz are 90,000 bit times per second.
    EXPECT_DOUBLE_EQ(estimateSerialLoad(oneOdt(3, kMs), 115'200).fraction, 90'000.0 / 115'200);
    // 252 bytes with the PID: (252 + 2) / 254 = 1 further code byte.
    EXPECT_DOUBLE_EQ(estimateSerialLoad(oneOdt(251, kMs), 1'000'000).fraction, 2'580'000.0 / 1e6);
    EXPECT_DOUBLE_EQ(estimateSerialLoad(oneOdt(250, kMs), 1'000'000).fraction, 2'560'000.0 / 1e6);
    EXPECT_EQ(estimateSerialLoad(oneOdt(3, kMs), 0).fraction, 0);
}

TEST(BusLoad, ListsAddUpAndUnknownPeriodsAreTold) {
    LoadInput input{{{10 * kMs, 0, false, {7, 7, 2}}, {20 * kMs, 5, false, {7}}, {0, 1, false, {7}}}, 0, 0};
    const LoadEstimate estimate = estimateCanLoad(input, {1'000'000, 0, false, false});
    EXPECT_DOUBLE_EQ(estimate.framesPerSecond, 310.0);
    EXPECT_DOUBLE_EQ(estimate.bitsPerSecond, 210.0 * 135 + 100.0 * 85);
    EXPECT_TRUE(estimate.incomplete);

    EXPECT_EQ(estimateCanLoad(input, {}).fraction, 0) << "an unknown bit rate blocks nothing";
    EXPECT_EQ(estimateUdpLoad(input).fraction, 0);
    EXPECT_DOUBLE_EQ(estimateUdpLoad(input).framesPerSecond, 310.0);
}

TEST(BusLoad, IdentificationFieldCountsByItsType) {
    for (const auto& [type, size] : {std::pair{0, 1}, {1, 2}, {2, 3}, {3, 4}, {9, 1}}) {
        LoadInput input = oneOdt(1, kMs);
        input.identificationType = static_cast<std::uint8_t>(type);
        EXPECT_DOUBLE_EQ(estimateSerialLoad(input, 1'000'000).fraction, (1 + size + 5) * 10'000 / 1e6)
            << type;
    }
}

}  // namespace
}  // namespace lm::session
