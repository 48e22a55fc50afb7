#include "value/raw_value.h"

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace lm::value {
namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

TEST(RawValue, BytesAndRefusalsAsTheyAreTold) {
    struct Row {
        double value;
        RawCoding coding;
        Bytes before;
        Bytes after;
        std::string error = {};
    };
    constexpr auto kLittle = ByteOrder::littleEndian;
    constexpr auto kBig = ByteOrder::bigEndian;
    // clang-format off
    const Row rows[] = {
        {255.4, {DataType::ubyte, kLittle, 0}, {0}, {0xFF}},
        {255.5, {DataType::ubyte, kLittle, 0}, {7}, {7}, "raw value 256.000000 outside the range of UBYTE"},
        {-0.5, {DataType::sbyte, kLittle, 0}, {7}, {0xFF}},
        {-3, {DataType::sword, kBig, 0x0FF0}, {0xA5, 0xA5}, {0xAF, 0xD5}},
        {-129, {DataType::sword, kBig, 0x0FF0}, {7, 7}, {7, 7}, "raw value -129.000000 outside the range of SWORD"},
        {5, {DataType::ulong, kLittle, 0x5A00}, {1, 0xFF, 3, 4}, {1, 0xAF, 3, 4}},
        {0x1p64, {DataType::uint64, kLittle, 0}, Bytes(8), Bytes(8), "raw value 18446744073709551616.000000 outside the range of A_UINT64"},
        {-kInfinity, {DataType::ulong, kLittle, 0}, Bytes(4), Bytes(4), "raw value -inf outside the range of ULONG"},
        {kNan, {DataType::slong, kLittle, 0}, Bytes(4), Bytes(4), "value is not a number"},
        {1, {DataType::float64, kLittle, 0}, Bytes(7), Bytes(7), "buffer too small"},
        {1.5, {DataType::float32, kBig, 0xFF}, Bytes(4), {0x3F, 0xC0, 0, 0}},
        {kNan, {DataType::float32, kBig, 0}, Bytes(4), {0x7F, 0xC0, 0, 0}},
        {1e300, {DataType::float32, kLittle, 0}, Bytes(4), {0, 0, 0x80, 0x7F}},
        {65519.99, {DataType::float16, kBig, 0}, Bytes(2), {0x7B, 0xFF}},
        {65520, {DataType::float16, kBig, 0}, Bytes(2), {0x7C, 0}}
    };
    // clang-format on
    for (const Row& row : rows) {
        Bytes bytes = row.before;
        const Result<void> result = encodeRaw(row.value, row.coding, bytes);
        EXPECT_EQ(result ? "" : result.error().text(), row.error) << row.value;
        EXPECT_EQ(bytes, row.after) << row.value;
    }
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
        if (exponent == 31) expected = kInfinity;
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
