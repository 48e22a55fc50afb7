#include "session/bus_load.h"

#include <gtest/gtest.h>

namespace lm::session {
namespace {

constexpr std::uint64_t kMs = 1'000'000;

LoadInput oneOdt(std::uint32_t bytes, std::uint64_t cycleNs, bool timestamp = false) {
    return {{{cycleNs, 1, timestamp, {bytes}}}, 0, 2};
}

TEST(BusLoad, ClassicCanFramesMatchHandWorkedBitCounts) {
    struct Row {
        std::uint32_t payload;  // without the one-byte PID
        bool timestamp;
        bool extended;
        bool maxDlc;
        std::uint32_t bits;
    };
    const Row rows[] = {
        // 8 bytes: (64 + 33) / 4 = 24 stuff bits, 64 + 47 others
        {7, false, false, false, 24 + 64 + 47},
        {5, true, false, false, 24 + 64 + 47},
        // 3 bytes: (24 + 33) / 4 = 14
        {2, false, false, false, 14 + 24 + 47},
        {2, false, false, true, 24 + 64 + 47},
        // extended: (64 + 53) / 4 = 29, (8 + 53) / 4 = 15
        {7, false, true, false, 29 + 64 + 67},
        {0, false, true, false, 15 + 8 + 67},
    };
    for (const Row& row : rows) {
        const CanTiming timing{500'000, 0, row.extended, row.maxDlc};
        const LoadEstimate estimate = estimateCanLoad(oneOdt(row.payload, 10 * kMs, row.timestamp), timing);
        EXPECT_DOUBLE_EQ(estimate.fraction, 100.0 * row.bits / 500'000) << row.payload;
        EXPECT_DOUBLE_EQ(estimate.bitsPerSecond, 100.0 * row.bits);
        EXPECT_DOUBLE_EQ(estimate.framesPerSecond, 100.0);
        EXPECT_FALSE(estimate.incomplete);
    }
}

TEST(BusLoad, CanFdFramesMatchHandWorkedTimes) {
    struct Row {
        std::uint32_t payload;
        bool extended;
        bool maxDlc;
        std::uint32_t length;
        std::uint32_t crc;
    };
    const Row rows[] = {{7, false, false, 8, 17},   {8, false, false, 12, 17},  {15, true, false, 16, 17},
                        {16, false, false, 20, 21}, {40, false, false, 48, 21}, {63, true, false, 64, 21},
                        {1, false, true, 64, 21}};
    for (const Row& row : rows) {
        const CanTiming timing{500'000, 2'000'000, row.extended, row.maxDlc};
        const double seconds =
            (8 * row.length + 9 + row.crc + 1) * 1.1 / 2e6 + (row.extended ? 55.0 : 34.1) / 5e5;
        EXPECT_NEAR(estimateCanLoad(oneOdt(row.payload, kMs), timing).fraction, 1000 * seconds, 1e-12)
            << row.payload;
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
