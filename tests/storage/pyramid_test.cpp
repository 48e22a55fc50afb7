#include "storage/pyramid.h"

#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>

#include <gtest/gtest.h>

#include "storage/recording_fixture.h"
#include "support/temp_dir.h"

namespace lm::storage {
namespace {

using a2l::Conversion;
using a2l::DataType;
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(Pyramid, NarrowsToTheFloatIntervalOutside) {
    const double aboveOne = std::nextafter(1.0, 2.0);
    const float floatAboveOne = std::nextafterf(1.0F, 2.0F);
    const float largest = std::numeric_limits<float>::max();
    struct Row {
        double minimum, maximum;
        float lower, upper;
    };
    const Row rows[] = {
        {1, 1, 1, 1},
        {aboveOne, aboveOne, 1, floatAboveOne},
        {-aboveOne, -aboveOne, -floatAboveOne, -1},
        {0.1, 0.1, std::nextafterf(0.1F, 0), 0.1F},
        {1e300, 1e300, largest, HUGE_VALF},
        {-1e300, -1e300, -HUGE_VALF, -largest},
        {-kInf, kInf, -HUGE_VALF, HUGE_VALF},
        {kInf, kInf, HUGE_VALF, HUGE_VALF},
        {1e-300, 1e-300, 0, std::numeric_limits<float>::denorm_min()},
    };
    for (const Row& row : rows) {
        const FloatRange narrowed = narrowOutward({row.minimum, row.maximum});
        EXPECT_EQ(narrowed.minimum, row.lower) << row.minimum;
        EXPECT_EQ(narrowed.maximum, row.upper) << row.maximum;
    }
    EXPECT_TRUE(std::isnan(narrowOutward({}).minimum) && std::isnan(narrowOutward({}).maximum));
}

// Every way through the decoder against decodeRaw() and toPhysical(), on random bytes (which hold NaN and
// infinities of all float types).
TEST(SignalDecoder, AgreesWithValueByValueDecoding) {
    const std::vector<Conversion> conversions = {
        Conversion(),
        Conversion(Conversion::Linear{-0.25, 7}, "", ""),
        Conversion(Conversion::Rational{0, 2, 1, 0, 0, 4}, "", ""),
        Conversion(Conversion::NumericTable{true, {{0, 5}, {100, -5}}, std::nullopt}, "", ""),
        Conversion(Conversion::VerbalTable{{{0, 3, "low"}}, ""}, "", ""),
    };
    constexpr std::size_t kStride = 29;
    std::mt19937 random(1);
    std::vector<std::uint8_t> records(kStride * 500);
    for (auto& byte : records)
        byte = static_cast<std::uint8_t>(random() % 4 == 0 ? 0xFF : random());

    for (int type = 0; type <= 10; ++type) {
        for (const ByteOrder order : {ByteOrder::littleEndian, ByteOrder::bigEndian}) {
            for (const std::uint64_t mask : {0x0U, 0x3CU}) {
                for (const Conversion& conversion : conversions) {
                    SignalInfo signal = test::makeSignal("s", DataType(type), 5, conversion);
                    signal.coding.byteOrder = order;
                    signal.coding.bitMask = mask;
                    ValueRange expected;
                    for (std::size_t i = 0; i < 500; ++i) {
                        const double raw = a2l::decodeRaw(&records[i * kStride + 5], signal.coding);
                        const double value = conversion.toPhysical(raw);
                        if (std::isnan(value)) continue;
                        expected.minimum = std::min(expected.minimum, value);
                        expected.maximum = std::max(expected.maximum, value);
                    }
                    ValueRange range;
                    const SignalDecoder decoder(signal);
                    decoder.extend(range, records.data(), kStride, 200);
                    decoder.extend(range, records.data() + 200 * kStride, kStride, 300);
                    const std::string what = std::to_string(type) + " mask " + std::to_string(mask) +
                                             " kind " + std::to_string(conversion.kind().index());
                    EXPECT_EQ(range.minimum, expected.minimum) << what;
                    EXPECT_EQ(range.maximum, expected.maximum) << what;
                }
            }
        }
    }
}

/// The entries of one level of a group with a single FLOAT64 signal that has the values given.
std::vector<std::pair<float, float>> levelOf(const std::vector<double>& values, std::uint32_t level) {
    lm::test::TempDir dir;
    GroupInfo group;
    group.recordSize = 8;
    group.signals.push_back(test::makeSignal("s", DataType::float64, 0));
    RecordingFaults faults(dir.path());
    Pyramid pyramid(0, group, faults);
    for (const double value : values) {
        std::uint8_t record[16] = {};
        writeLittle(record + 8, std::bit_cast<std::uint64_t>(value));
        pyramid.add(record, 1);
    }
    pyramid.close();
    EXPECT_FALSE(faults.writeFailed());
    const test::Bytes file = test::readFile(dir.path() / levelFileName(0, level));
    std::vector<std::pair<float, float>> entries;
    for (std::size_t at = 32; at + 8 <= file.size(); at += 8) {
        entries.emplace_back(std::bit_cast<float>(readLittle<std::uint32_t>(&file[at])),
                             std::bit_cast<float>(readLittle<std::uint32_t>(&file[at + 4])));
    }
    return entries;
}

TEST(Pyramid, LeavesNaNBlocksOutOfTheNextLevel) {
    std::vector<double> values(256, kNaN);
    auto entries = levelOf(values, 2);
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_TRUE(std::isnan(entries[0].first) && std::isnan(entries[0].second));

    values[20] = -3;
    values[40] = kInf;
    entries = levelOf(values, 1);
    ASSERT_EQ(entries.size(), 16U);
    EXPECT_TRUE(std::isnan(entries[0].first) && std::isnan(entries[0].second));
    EXPECT_EQ(entries[1], std::make_pair(-3.0F, -3.0F));
    EXPECT_EQ(entries[2], std::make_pair(HUGE_VALF, HUGE_VALF));
    EXPECT_EQ(levelOf(values, 2).at(0), std::make_pair(-3.0F, HUGE_VALF));
}

TEST(Pyramid, HasAnEntryPerWholeBlockOfEachLevel) {
    std::vector<double> values(4096 + 300);
    std::iota(values.begin(), values.end(), 0.0);
    EXPECT_EQ(levelOf(values, 1).size(), 274U);
    EXPECT_EQ(levelOf(values, 2).size(), 17U);
    ASSERT_EQ(levelOf(values, 3).size(), 1U);
    EXPECT_EQ(levelOf(values, 3)[0], std::make_pair(0.0F, 4095.0F));
    values.resize(255);
    EXPECT_TRUE(levelOf(values, 2).empty());
}

}  // namespace
}  // namespace lm::storage
