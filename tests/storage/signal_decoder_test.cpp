#include "storage/format/signal_decoder.h"

#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "storage/recording_fixture.h"

namespace lm::storage {
namespace {

using value::Conversion;
using value::DataType;

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
                const double value = conversion.toPhysical(value::decodeRaw(&records[at], signal.coding));
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

}  // namespace
}  // namespace lm::storage
