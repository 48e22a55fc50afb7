#include "sim/serial_frame.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "sim/sim_bench.h"

namespace lm::sim {
namespace {

/// What a reader makes of bytes: packets in hexadecimal, lines in quotes.
Packets taken(FrameReader& reader, std::span<const std::uint8_t> bytes) {
    Packets seen;
    reader.feed(
        bytes, [&](auto packet) { seen.push_back(hexOf(packet)); },
        [&](std::string_view line) { seen.push_back("'" + std::string(line) + "'"); });
    return seen;
}

TEST(SerialFrame, FramesAreThoseOfTheStandardsOfCrcAndStuffing) {
    const struct {
        const char* packet;
        const char* frame;
    } rows[] = {
        // The CRC of "123456789" is 0x29B1.
        {"31 32 33 34 35 36 37 38 39", "00 0C 31 32 33 34 35 36 37 38 39 B1 29 00"},
        {"FF 00", "00 02 FF 03 F0 1E 00"},
        {"00", "00 01 03 F0 E1 00"},
    };
    for (const auto& row : rows) {
        std::vector<std::uint8_t> frame;
        appendFrame(bytesOf(row.packet), frame);
        EXPECT_EQ(hexOf(frame), row.frame);
    }
}

TEST(SerialFrame, EveryPacketSurvives) {
    for (const std::size_t size : {1, 2, 251, 252, 253, 254, 255, 256, 507, 508, 509, 1400, 65000}) {
        for (const std::size_t zeroEach : {1, 2, 254, 255, 256, 100000}) {
            std::vector<std::uint8_t> packet(size);
            for (std::size_t i = 0; i < size; ++i)
                packet[i] = (i + 1) % zeroEach == 0 ? 0 : static_cast<std::uint8_t>(1 + i % 255);
            std::vector<std::uint8_t> frame;
            appendFrame(packet, frame);
            EXPECT_EQ(std::count(frame.begin(), frame.end(), 0), 2);
            EXPECT_LE(frame.size(), size + 2 + (size + 2) / 254 + 3);
            FrameReader reader;
            EXPECT_EQ(taken(reader, frame), Packets{hexOf(packet)}) << size << " " << zeroEach;
        }
    }
}

TEST(SerialFrame, DamageCostsOneFrameAndNoLine) {
    const std::vector<std::uint8_t> whole = bytesOf("00 02 FF 03 F0 1E 00");
    const std::vector<std::uint8_t> line = bytesOf("68 69 0D 0A");
    for (std::size_t at = 0; at < whole.size(); ++at) {
        std::vector<std::uint8_t> bytes = whole;
        bytes[at] ^= 0x40;
        bytes.insert(bytes.end(), line.begin(), line.end());
        bytes.insert(bytes.end(), whole.begin(), whole.end());
        FrameReader reader;
        const Packets seen = taken(reader, bytes);
        ASSERT_FALSE(seen.empty()) << at;
        EXPECT_EQ(seen.back(), "FF 00") << at;
        EXPECT_EQ(std::count(seen.begin(), seen.end(), "FF 00"), 1) << at;
    }
}

}  // namespace
}  // namespace lm::sim
