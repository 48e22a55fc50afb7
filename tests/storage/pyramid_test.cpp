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
using Entries = std::vector<std::pair<float, float>>;
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Every way through the decoder against decodeRaw() and toPhysical(), on random bytes (which hold NaN and
// infinities of all float types).
TEST(SignalDecoder, AgreesWithValueByValueDecoding) {
    const std::vector<Conversion> conversions = {
        Conversion(),
        Conversion(Conversion::Linear{-0.25, 7}, "", ""),
        Conversion(Conversion::Rational{0, 2, 1, 0, 0, 4}, "", ""),
        Conversion(Conversion::NumericTable{true, {{0, 5}, {100, -5}}, std::nullopt}, "", ""),
        Conversion(Conversion::NumericTable{false, {{0, 5}, {9, -5}, {60, 2}, {1e4, 7}}, std::nullopt}, "",
                   ""),
        Conversion(Conversion::NumericTable{false, {{0, 5}, {9, -5}, {60, 2}}, 77}, "", ""),
        Conversion(Conversion::VerbalTable{{{0, 3, "low"}}, ""}, "", ""),
    };
    constexpr std::size_t kStride = 29;
    std::mt19937 random(1);
    std::vector<std::uint8_t> records(kStride * 500);
    for (auto& byte : records)
        byte = static_cast<std::uint8_t>(random() % 4 == 0 ? 0xFF : random());
    // Inside every type, up to the sign bit of some, and beyond some.
    constexpr std::uint64_t kMasks[] = {0, 0x3C, 0xFFF0, 0xFF0000000000FE00};
    for (int i = 0; i < 11 * 2 * 4; ++i) {
        for (const Conversion& conversion : conversions) {
            SignalInfo signal = test::makeSignal("s", DataType(i / 8), 5, conversion);
            signal.coding.byteOrder = i % 2 == 0 ? ByteOrder::littleEndian : ByteOrder::bigEndian;
            signal.coding.bitMask = kMasks[i / 2 % 4];
            ValueRange expected;
            for (std::size_t at = 5; at < records.size(); at += kStride) {
                const double value = conversion.toPhysical(a2l::decodeRaw(&records[at], signal.coding));
                if (std::isnan(value)) continue;
                expected.minimum = std::min(expected.minimum, value);
                expected.maximum = std::max(expected.maximum, value);
            }
            ValueRange range;
            // Reads the table of a signal that has an equal one.
            const SignalInfo other = test::makeSignal("o", DataType::ubyte, 0, conversion);
            SignalDecoder decoder(signal);
            EXPECT_EQ(decoder.shareTable(SignalDecoder(other)), decoder.hasTable());
            decoder.extend(range, records.data(), kStride, 200);
            decoder.extend(range, records.data() + 200 * kStride, kStride, 300);
            EXPECT_EQ(range.minimum, expected.minimum) << i << " kind " << conversion.kind().index();
            EXPECT_EQ(range.maximum, expected.maximum) << i << " kind " << conversion.kind().index();
        }
    }
}

/// The entries of one level of a group with a single FLOAT64 signal that has the values given.
Entries levelOf(const std::vector<double>& values, std::uint32_t level) {
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
    Entries entries;
    for (std::size_t at = 32; at + 8 <= file.size(); at += 8) {
        entries.emplace_back(std::bit_cast<float>(readLittle<std::uint32_t>(&file[at])),
                             std::bit_cast<float>(readLittle<std::uint32_t>(&file[at + 4])));
    }
    return entries;
}

TEST(Pyramid, HasAnEntryPerWholeBlockThatSkipsNaN) {
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
    EXPECT_EQ(levelOf(values, 2).at(0), std::make_pair(-3.0F, HUGE_VALF));

    values.resize(4096 + 300);
    std::iota(values.begin(), values.end(), 0.0);
    EXPECT_EQ(levelOf(values, 1).size(), 274U);
    EXPECT_EQ(levelOf(values, 3), Entries(1, {0.0F, 4095.0F}));
    values.resize(255);
    EXPECT_TRUE(levelOf(values, 2).empty());
}

}  // namespace
}  // namespace lm::storage
