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

/// Takes a stream apart: short packets "[..]" in hexadecimal, "!" for an invalid frame, and the plain bytes.
class Reader final : public ISerialFrameSink {
  public:
    void feed(const Bytes& bytes, std::size_t piece = 100'000) {
        for (std::size_t at = 0; at < bytes.size(); at += piece) {
            receiver.receive(bytes.data() + at, std::min(piece, bytes.size() - at));
        }
    }
    void onFrame(const std::uint8_t* packet, std::size_t length) override {
        last.assign(packet, packet + length);
        if (length < 10) text += "[" + hexText(packet, length) + "]";
    }
    void onPlainBytes(const std::uint8_t* data, std::size_t length) override {
        EXPECT_GT(length, 0U);
        text.append(reinterpret_cast<const char*>(data), length);
    }
    void onInvalidFrame() override { text += "!"; }

    SerialFrameReceiver receiver{*this};
    std::string text;
    Bytes last;
};

Bytes frameOf(const Bytes& packet) {
    Bytes frame;
    encodeSerialFrame(packet.data(), packet.size(), frame);
    return frame;
}

/// "11 11 ... "
std::string ones(std::size_t count) {
    return hexText(Bytes(count, 0x11).data(), count) + " ";
}

TEST(SerialFrame, HasTheseBytes) {
    const std::pair<std::string, std::string> rows[] = {
        {"FF 00", "00 02 FF 03 F0 1E 00"},
        {"00", "00 01 03 F0 E1 00"},
        {"31 32 33 34 35 36 37 38 39", "00 0C 31 32 33 34 35 36 37 38 39 B1 29 00"},
        // 252 bytes and their CRC fill a group; the next bytes open another.
        {ones(252), "00 FF " + ones(252) + "70 91 01 00"},
        {ones(255), "00 FF " + ones(254) + "04 11 51 01 00"},
    };
    for (const auto& [packet, frame] : rows) {
        const Bytes bytes = frameOf(hex(packet));
        EXPECT_EQ(hexText(bytes.data(), bytes.size()), frame);
        Reader reader;
        reader.feed(bytes, 1);
        EXPECT_EQ(reader.last, hex(packet));
    }
    // The code of the empty group behind a full one may be missing.
    Reader reader;
    reader.feed(hex("00 FF " + ones(252) + "70 91 00"));
    EXPECT_EQ(reader.last, Bytes(252, 0x11));
}

/// P and Q stand for frames of 11 and 22, p for the body of P, 0 for a zero byte, X for as many x as fit.
Bytes spelled(const std::string& text) {
    Bytes bytes;
    for (const char c : text) {
        Bytes part(1, static_cast<std::uint8_t>(c));
        if (c == 'P' || c == 'p') part = frameOf({0x11});
        if (c == 'Q') part = frameOf({0x22});
        if (c == 'X') part.assign(SerialFrameReceiver::kMaxBody, 'x');
        if (c == '0') part[0] = 0;
        const int edge = c == 'p' ? 1 : 0;
        bytes.insert(bytes.end(), part.begin() + edge, part.end() - edge);
    }
    return bytes;
}

TEST(SerialFrame, StandsOutFromTheTextAroundIt) {
    // In a stream, s is a silence; each ends in one.
    const std::pair<std::string, std::string> rows[] = {
        {"PQ", "[11][22]"},
        {"xxPyyQzz", "xx[11]yy[22]zz"},
        {"0000P0Q", "[11][22]"},
        {"xx0yyPQ", "xx!yy[11][22]"},  // a stray zero costs no frame
        {"0xPyQ0z", "!x[11]y[22]!z"},  //
        {"x0ssyP", "xy[11]"},          // an empty frame given up is nothing lost
        {"0x0y0z0P", "!x!y!z[11]"},    // text full of zeros
        {"0p0xP", "[11]x[11]"},        // a valid frame's end opens nothing
        {"0xx0p0", "!xx[11]"},         // an invalid frame's end may open the next
        {"0XP", "!X[11]"},             // a body of the greatest length
        {"0XxP0XXP", "Xx[11]XX[11]"},  // what is longer is no frame, yet nothing of it is lost
    };
    for (const auto& [stream, expected] : rows) {
        for (const std::size_t piece : {1U, 3U, 4096U}) {
            Reader reader;
            for (const std::string& part : test::split(stream, "s")) {
                reader.feed(spelled(part), piece);
                reader.receiver.giveUpFrame();
            }
            const Bytes text = spelled(expected);
            EXPECT_TRUE(reader.text == std::string(text.begin(), text.end())) << stream;
        }
    }
    EXPECT_EQ(SerialFrameReceiver::kMaxBody, 65797U);
}

}  // namespace
}  // namespace lm::xcp
