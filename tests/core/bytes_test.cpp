#include "core/bytes.h"

#include <array>

#include <gtest/gtest.h>

namespace lm {
namespace {

TEST(Bytes, EveryWidthLiesInTheOrderNamed) {
    std::array<std::uint8_t, 8> buffer{};
    writeBytes<std::uint32_t>(buffer.data(), 0x12345678, ByteOrder::bigEndian);
    EXPECT_EQ(buffer, (std::array<std::uint8_t, 8>{0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ(readLittle<std::uint32_t>(buffer.data()), 0x78563412U);
    writeLittle<std::uint64_t>(buffer.data(), 0x0102030405060708U);
    EXPECT_EQ(buffer, (std::array<std::uint8_t, 8>{8, 7, 6, 5, 4, 3, 2, 1}));
    EXPECT_EQ(readBytes<std::uint64_t>(buffer.data(), ByteOrder::bigEndian), 0x0807060504030201U);
    writeSized(buffer.data(), 0xFF123456, 3, ByteOrder::bigEndian);
    EXPECT_EQ(buffer, (std::array<std::uint8_t, 8>{0x12, 0x34, 0x56, 5, 4, 3, 2, 1}));
    EXPECT_EQ(readSized(buffer.data(), 3, ByteOrder::bigEndian), 0x123456U);
    EXPECT_EQ(readSized(buffer.data(), 3, ByteOrder::littleEndian), 0x563412U);
}

}  // namespace
}  // namespace lm
