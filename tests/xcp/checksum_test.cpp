#include "xcp/checksum.h"

#include <numeric>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace lm::xcp {
namespace {

std::vector<std::uint8_t> digits(std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{'1'});
    return bytes;
}

/// 01 to 10, F1 to FF, 00.
std::vector<std::uint8_t> ramps() {
    std::vector<std::uint8_t> bytes(32);
    std::iota(bytes.begin(), bytes.begin() + 16, std::uint8_t{0x01});
    std::iota(bytes.begin() + 16, bytes.end(), std::uint8_t{0xF1});
    return bytes;
}

TEST(Checksum, ComputesEveryType) {
    using Type = ChecksumType;
    struct Sums {
        std::uint32_t little, big;
    };
    const struct {
        Type type;
        std::size_t digits;
        Sums ofDigits, ofRamps;
    } rows[] = {
        {Type::add11, 9, {0xDD, 0xDD}, {0x10, 0x10}},
        {Type::add12, 9, {0x01DD, 0x01DD}, {0x0F10, 0x0F10}},
        {Type::add14, 9, {0x01DD, 0x01DD}, {0x0F10, 0x0F10}},
        {Type::add22, 8, {0xD4D0, 0xD0D4}, {0x1800, 0x0710}},
        {Type::add24, 8, {0xD4D0, 0xD0D4}, {0x00071800, 0x00080710}},
        {Type::add44, 8, {0x6C6A6866, 0x66686A6C}, {0x140C03F8, 0xFC040B10}},
        {Type::crc16, 9, {0xBB3D, 0xBB3D}, {0xC76A, 0xC76A}},
        {Type::crc16Citt, 9, {0x29B1, 0x29B1}, {0x9D50, 0x9D50}},
        {Type::crc32, 9, {0xCBF43926, 0xCBF43926}, {0x89CD97CE, 0x89CD97CE}},
    };
    for (const auto& row : rows) {
        const auto name = checksumTypeName(row.type);
        EXPECT_EQ(checksum(row.type, digits(row.digits), ByteOrder::littleEndian), row.ofDigits.little)
            << name;
        EXPECT_EQ(checksum(row.type, digits(row.digits), ByteOrder::bigEndian), row.ofDigits.big) << name;
        EXPECT_EQ(checksum(row.type, ramps(), ByteOrder::littleEndian), row.ofRamps.little) << name;
        EXPECT_EQ(checksum(row.type, ramps(), ByteOrder::bigEndian), row.ofRamps.big) << name;
    }
    for (const auto type : {Type::add22, Type::add24, Type::add44, Type::userDefined, Type{0x42}})
        EXPECT_EQ(checksum(type, digits(9), ByteOrder::littleEndian), std::nullopt);
}

}  // namespace
}  // namespace lm::xcp
