#include "xcp/serial_frame.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bytes;
using test::hex;
using test::hexText;

/// Frames and invalid frames as they come, "[..]" in hexadecimal and "!", and between them the plain bytes.
class Log final : public ISerialFrameSink {
  public:
    void onFrame(const std::uint8_t* packet, std::size_t length) override {
        text += "[" + hexText(packet, length) + "]";
        last.assign(packet, packet + length);
        ++frames;
    }
    void onPlainBytes(const std::uint8_t* data, std::size_t length) override {
        EXPECT_GT(length, 0U);
        text.append(reinterpret_cast<const char*>(data), length);
        plain += length;
    }
    void onInvalidFrame() override {
        text += "!";
        ++invalid;
    }

    std::string text;
    Bytes last;
    std::size_t frames = 0;
    std::size_t plain = 0;
    std::size_t invalid = 0;
};

Bytes frameOf(const Bytes& packet) {
    Bytes frame;
    encodeSerialFrame(packet.data(), packet.size(), frame);
    return frame;
}

Bytes& operator+=(Bytes& to, const Bytes& from) {
    to.insert(to.end(), from.begin(), from.end());
    return to;
}

void feed(SerialFrameReceiver& receiver, const Bytes& bytes, std::size_t piece) {
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        receiver.receive(bytes.data() + at, std::min(piece, bytes.size() - at));
    }
}

/// Every `zeroEvery`-th byte is zero, none for 0.
Bytes packetOf(std::size_t length, std::size_t zeroEvery) {
    Bytes packet(length);
    for (std::size_t i = 0; i < length; ++i) {
        const bool zero = zeroEvery != 0 && i % zeroEvery == zeroEvery - 1;
        packet[i] = zero ? 0 : static_cast<std::uint8_t>(1 + (i * 31 + length) % 255);
    }
    return packet;
}

std::string repeated(const char* byte, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += byte;
    }
    return text;
}

TEST(SerialFrame, HasTheseBytes) {
    const std::string digits = "123456789";
    EXPECT_EQ(serialCrc(reinterpret_cast<const std::uint8_t*>(digits.data()), digits.size()), 0x29B1);
    const std::pair<std::string, std::string> rows[] = {
        {"FF 00", "00 02 FF 03 F0 1E 00"},
        {"00", "00 01 03 F0 E1 00"},
        {"31 32 33 34 35 36 37 38 39", "00 0C 31 32 33 34 35 36 37 38 39 B1 29 00"},
        // 252 bytes and their CRC fill a group; the next bytes open another.
        {repeated("11 ", 252), "00 FF " + repeated("11 ", 252) + "70 91 01 00"},
        {repeated("11 ", 255), "00 FF " + repeated("11 ", 254) + "04 11 51 01 00"},
    };
    for (const auto& [packet, frame] : rows) {
        const Bytes bytes = frameOf(hex(packet));
        EXPECT_EQ(hexText(bytes.data(), bytes.size()), frame);
    }
}

TEST(SerialFrame, CarriesPacketsOfEveryLength) {
    Log log;
    SerialFrameReceiver receiver(log);
    std::vector<std::size_t> lengths = {65534, 65535};
    for (std::size_t length = 1; length <= 1100; ++length) {
        lengths.push_back(length);
    }
    for (const std::size_t length : lengths) {
        for (const std::size_t zeroEvery : {0U, 1U, 2U, 7U, 254U, 255U, 256U}) {
            const Bytes packet = packetOf(length, zeroEvery);
            const Bytes frame = frameOf(packet);
            ASSERT_LE(frame.size(), length + (length + 2) / 254 + 5);
            ASSERT_EQ(std::count(frame.begin(), frame.end(), 0), 2);
            for (const std::size_t piece : {frame.size(), std::size_t{1}, std::size_t{100}}) {
                feed(receiver, frame, piece);
                ASSERT_TRUE(log.last == packet) << length << " " << zeroEvery << " " << piece;
                log.last.clear();
            }
        }
    }
    EXPECT_EQ(log.frames, lengths.size() * 7 * 3);
    EXPECT_EQ(log.plain + log.invalid, 0U);
}

TEST(SerialFrame, SurvivesEveryDamagedByteAndEveryCut) {
    const Bytes next = frameOf({0xFF, 0x00, 0x10});
    for (const std::size_t length : {1U, 2U, 8U, 64U, 252U, 253U, 254U, 255U, 256U}) {
        for (const std::size_t zeroEvery : {0U, 1U, 5U}) {
            const Bytes frame = frameOf(packetOf(length, zeroEvery));
            // Behind a full group, the code of an empty last one may be missing: the frame stays valid.
            const std::size_t spare = length == 252 && zeroEvery == 0 ? frame.size() - 2 : 0;
            for (std::size_t at = 0; at < frame.size(); ++at) {
                for (const int damage : {0x01, 0x80, 0xFF, -1}) {
                    Bytes bytes = frame;
                    bytes[at] = damage < 0 ? 0 : static_cast<std::uint8_t>(bytes[at] ^ damage);
                    if (bytes == frame) continue;
                    bytes += next;
                    Log log;
                    SerialFrameReceiver receiver(log);
                    feed(receiver, bytes, bytes.size());
                    if (spare != 0 && at == spare && bytes[at] == 0) continue;
                    ASSERT_EQ(log.frames, 1U) << length << " " << at << " " << damage;
                    ASSERT_EQ(hexText(log.last.data(), log.last.size()), "FF 00 10");
                    // Nothing but delimiters is lost, and what was a frame counts.
                    const auto zeros = std::count(bytes.begin(), bytes.end() - next.size(), 0);
                    ASSERT_EQ(log.plain, frame.size() - zeros);
                    ASSERT_TRUE(log.invalid >= 1 || at == 0);
                }
            }
            for (std::size_t cut = 1; cut + 1 < frame.size(); ++cut) {
                if (cut == spare) continue;
                const Bytes begin(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(cut));
                for (const bool silence : {false, true}) {
                    Log log;
                    SerialFrameReceiver receiver(log);
                    feed(receiver, begin, begin.size());
                    EXPECT_TRUE(receiver.insideFrame());
                    if (silence) receiver.giveUpFrame();
                    EXPECT_EQ(receiver.insideFrame(), !silence);
                    feed(receiver, next, next.size());
                    ASSERT_EQ(log.frames, 1U) << length << " " << cut;
                    ASSERT_EQ(log.plain, cut - 1);
                    ASSERT_EQ(log.invalid, cut > 1 ? 1U : 0U);
                }
            }
        }
    }
}

TEST(SerialFrame, StandsOutFromTheTextAroundIt) {
    const Bytes a = frameOf({0xAA});
    const Bytes b = frameOf({0xBB});
    // A row spells the stream: A and B are whole frames, a the body of A, 0 a zero byte, s silence.
    const std::pair<std::string, std::string> rows[] = {
        {"A", "[AA]"},
        {"AB", "[AA][BB]"},
        {"xxAyyBzz", "xx[AA]yy[BB]zz"},
        {"0000A0B", "[AA][BB]"},
        {"xx0yyAB", "xx!yy[AA][BB]"},   // a stray zero costs no frame
        {"0xAyB0z", "!x[AA]y[BB]"},     // the last one may be a frame yet
        {"0xAyB0zs", "!x[AA]y[BB]!z"},  // it was none
        {"x0ssyA", "xy[AA]"},           // an empty frame given up is nothing lost
        {"0x0y0z0A", "!x!y!z[AA]"},     // text full of zeros
        {"A0sAsB", "[AA][AA][BB]"},     //
        {"0a0xA", "[AA]x[AA]"},         // a valid frame's end opens nothing
        {"00a00a00", "[AA][AA]"},       //
        {"0xx0a0", "!xx[AA]"},          // an invalid frame's end may open the next
    };
    for (const auto& [stream, expected] : rows) {
        for (const std::size_t piece : {1U, 1000U}) {
            Log log;
            SerialFrameReceiver receiver(log);
            for (const char c : stream) {
                if (c == 's') {
                    receiver.giveUpFrame();
                } else if (c == 'A' || c == 'B') {
                    feed(receiver, c == 'A' ? a : b, piece);
                } else if (c == 'a') {
                    feed(receiver, Bytes(a.begin() + 1, a.end() - 1), piece);
                } else {
                    feed(receiver, {c == '0' ? std::uint8_t{0} : static_cast<std::uint8_t>(c)}, piece);
                }
            }
            EXPECT_EQ(log.text, expected) << stream;
        }
    }
}

TEST(SerialFrame, GivesUpWhatGrowsBeyondAFrame) {
    const Bytes after = frameOf({0x55});
    for (const std::size_t length : {65797U, 65798U, 300'000U}) {
        Log log;
        SerialFrameReceiver receiver(log);
        feed(receiver, {0}, 1);
        feed(receiver, Bytes(length, 'x'), 4096);
        EXPECT_EQ(receiver.insideFrame(), length <= SerialFrameReceiver::kMaxBody);
        feed(receiver, after, after.size());
        EXPECT_EQ(log.plain, length);
        EXPECT_EQ(log.frames, 1U);
    }
}

}  // namespace
}  // namespace lm::xcp
