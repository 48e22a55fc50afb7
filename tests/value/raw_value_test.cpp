#include "value/raw_value.h"

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace lm::value {
namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr double kUnbounded = std::numeric_limits<double>::infinity();
constexpr double kNoNumber = std::numeric_limits<double>::quiet_NaN();

// Integers, masks and refusals are those of the campaign `set_safety`; here stand floats that no one can
// type.
TEST(RawValue, FloatsTakeWhatNoOneTypes) {
    const struct {
        double value;
        RawCoding coding;
        Bytes after;
    } rows[] = {{1.5, {DataType::float32, ByteOrder::bigEndian, 0xFF}, {0x3F, 0xC0, 0, 0}},
                {kNoNumber, {DataType::float32, ByteOrder::bigEndian, 0}, {0x7F, 0xC0, 0, 0}},
                {1e300, {DataType::float32, ByteOrder::littleEndian, 0}, {0, 0, 0x80, 0x7F}}};
    for (const auto& row : rows) {
        Bytes bytes(4);
        EXPECT_TRUE(encodeRaw(row.value, row.coding, bytes).ok());
        EXPECT_EQ(bytes, row.after) << row.value;
    }
    Bytes small(7);
    EXPECT_EQ(encodeRaw(1, {DataType::float64, ByteOrder::bigEndian, 0}, small).error().text(),
              "buffer too small");
}

double halfValue(int bits) {
    const Bytes bytes = {static_cast<std::uint8_t>(bits >> 8), static_cast<std::uint8_t>(bits & 0xFF)};
    return decodeRaw(bytes.data(), {DataType::float16, ByteOrder::bigEndian, 0});
}

int halfBits(double value) {
    Bytes bytes(2);
    EXPECT_TRUE(encodeRaw(value, {DataType::float16, ByteOrder::littleEndian, 0}, bytes).ok());
    return bytes[0] | bytes[1] << 8;
}

TEST(RawValue, EveryHalfFloatDecodesAndComesBack) {
    for (int bits = 0; bits <= 0xFFFF; ++bits) {
        const int exponent = bits >> 10 & 0x1F;
        const int fraction = bits & 0x3FF;
        const double value = halfValue(bits);
        if (exponent == 31 && fraction != 0) {
            ASSERT_TRUE(std::isnan(value) && std::isnan(halfValue(halfBits(value)))) << bits;
            continue;
        }
        double expected =
            exponent == 0 ? std::ldexp(fraction, -24) : std::ldexp(fraction + 1024, exponent - 25);
        if (exponent == 31) expected = kUnbounded;
        ASSERT_EQ(value, bits < 0x8000 ? expected : -expected) << bits;
        ASSERT_EQ(halfBits(value), bits);
    }
}

TEST(RawValue, SingleToHalfRoundsToTheNearestAndTiesToEven) {
    for (int bits = 0; bits < 0x7BFF; ++bits) {
        const auto middle = static_cast<float>((halfValue(bits) + halfValue(bits + 1)) / 2);
        ASSERT_EQ(halfBits(middle), bits % 2 == 0 ? bits : bits + 1) << bits;
        ASSERT_EQ(halfBits(std::nextafter(middle, 0.0F)), bits) << bits;
        ASSERT_EQ(halfBits(-std::nextafter(middle, 1e9F)), 0x8000 | (bits + 1)) << bits;
    }
}

}  // namespace
}  // namespace lm::value
