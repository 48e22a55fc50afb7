#include "a2l/raw_value.h"

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace lm::a2l {
namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

/// An integer field told bit by bit: for each bit of the value its place in the bytes, -1 in a hole of the
/// mask.
struct ReferenceField {
    explicit ReferenceField(const RawCoding& of) : coding(of) {
        const int size = static_cast<int>(coding.size());
        for (int bit = 0; bit < 8 * size; ++bit) {
            const bool inMask = coding.bitMask == 0 || (coding.bitMask >> bit & 1U) != 0;
            const int place = coding.byteOrder == ByteOrder::bigEndian ? bit ^ (8 * size - 8) : bit;
            if (inMask || !places.empty()) places.push_back(inMask ? place : -1);
            if (inMask) width = places.size();
        }
    }
    double decode(const Bytes& bytes) const {
        long double value = 0;
        for (std::size_t i = 0; i < width; ++i) {
            if (places[i] < 0 || (bytes[byteOf(i)] >> places[i] % 8 & 1) == 0) continue;
            value +=
                std::ldexp(isSigned(coding.dataType) && i == width - 1 ? -1.0L : 1.0L, static_cast<int>(i));
        }
        return static_cast<double>(value);
    }
    Bytes encode(double value, Bytes bytes) const {
        const auto magnitude = static_cast<std::uint64_t>(std::fabs(value));
        const std::uint64_t number = value < 0 ? ~magnitude + 1 : magnitude;
        for (std::size_t i = 0; i < width; ++i) {
            if (places[i] < 0) continue;
            std::uint8_t& byte = bytes[byteOf(i)];
            const auto bit = static_cast<std::uint8_t>(1U << places[i] % 8);
            byte = static_cast<std::uint8_t>((number >> i & 1U) != 0 ? byte | bit : byte & ~bit);
        }
        return bytes;
    }
    std::size_t byteOf(std::size_t i) const { return static_cast<std::size_t>(places[i]) / 8; }

    RawCoding coding;
    std::vector<int> places;
    std::size_t width = 0;
};

/// Both ends of a field of `width` bits, in steps that a double can make there.
void checkEncoding(const ReferenceField& field, const Bytes& old) {
    const int width = static_cast<int>(field.width);
    const bool negative = isSigned(field.coding.dataType) && width > 0;
    const double top = std::ldexp(1.0, negative ? width - 1 : width);
    const double bottom = negative ? -top : 0;
    const double highest = top <= 0x1p53 ? top - 1 : std::nextafter(top, 0);
    const double tooLow = bottom >= -0x1p52 ? bottom - 1 : std::nextafter(bottom, -kInfinity);
    for (const double value : {bottom, highest, std::floor(highest / 3), std::ceil(bottom / 5)}) {
        Bytes bytes = old;
        EXPECT_TRUE(encodeRaw(value, field.coding, bytes).ok()) << value;
        EXPECT_EQ(bytes, field.encode(value, old)) << value;
    }
    for (const double value : {top, tooLow, kInfinity, -kInfinity}) {
        Bytes bytes = old;
        EXPECT_FALSE(encodeRaw(value, field.coding, bytes).ok()) << value;
        EXPECT_EQ(bytes, old) << value;
    }
}

TEST(RawValue, IntegersOfAllTypesOrdersAndMasksAgreeWithABitwiseReference) {
    const Bytes patterns[] = {Bytes(8),
                              Bytes(8, 0xFF),
                              {0x80, 0x01, 0x7F, 0xFE, 0x80, 0x01, 0x00, 0x80},
                              {0xAB, 0xCD, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xF1}};
    const auto check = [&patterns](const RawCoding& coding) {
        SCOPED_TRACE(std::string(dataTypeName(coding.dataType)) + " mask " + std::to_string(coding.bitMask) +
                     (coding.byteOrder == ByteOrder::bigEndian ? " big-endian" : ""));
        const ReferenceField field(coding);
        for (const Bytes& pattern : patterns) {
            const Bytes bytes(pattern.begin(), pattern.begin() + static_cast<long>(coding.size()));
            EXPECT_EQ(decodeRaw(bytes.data(), coding), field.decode(bytes));
            checkEncoding(field, bytes);
        }
    };
    for (int type = 0; type <= static_cast<int>(DataType::int64); ++type) {
        for (const ByteOrder order : {ByteOrder::littleEndian, ByteOrder::bigEndian}) {
            for (const std::uint64_t bits : {0x0ULL, 0x1ULL, 0xFULL, 0x5AULL, 0xFFFFULL, ~0ULL}) {
                for (int shift = 0; shift < 64; shift += 3)
                    check({static_cast<DataType>(type), order, bits << shift});
            }
        }
    }
}

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
}  // namespace lm::a2l
