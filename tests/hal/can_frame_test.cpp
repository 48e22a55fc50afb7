#include "hal/can_frame.h"

#include <tuple>

#include <gtest/gtest.h>

namespace lm::hal {
namespace {

const std::string kNine = "001122334455667788";

std::string repeated(const std::string& text, std::size_t count) {
    return count == 0 ? "" : text + repeated(text, count - 1);
}

TEST(CanFrame, ReadsAndPrintsTheTextNotation) {
    const std::pair<std::string, std::string> rows[] = {
        {"123#", "123#"},
        {"7fF#0a", "7FF#0A"},
        {"00000123#11.22 33", "00000123#112233"},
        {"123#.11..22 ", "123#1122"},
        {"123#R", "123#R"},
        {"123#R0", "123#R"},
        {"123#r8", "123#R8"},
        {"123##3", "123##3"},
        {"123##1AABBCCDDEEFF0011 22", "123##1AABBCCDDEEFF001122000000"},
        {"1ABCDEF0##2" + kNine, "1ABCDEF0##2" + kNine + "000000"},
        {"123##0" + repeated("5A", 33), "123##0" + repeated("5A", 33) + repeated("00", 15)},
        {"123##0" + repeated("5A", 64), "123##0" + repeated("5A", 64)},
    };
    for (const auto& [text, printed] : rows) {
        const auto frame = parseCanFrame(text);
        ASSERT_TRUE(frame) << frame.error().message;
        EXPECT_EQ(formatCanFrame(frame.value()), printed);
    }
    EXPECT_EQ(parseCanFrame("1ABCDEF0##3").value().flags, 0x01 | 0x02 | 0x04 | 0x08);
    EXPECT_EQ(parseCanFrame("123#R").value().flags, 0x10);
}

TEST(CanFrame, SaysWhatIsWrongWithATextOrAFrame) {
    const std::string digits = "identifier must have 3 (standard) or 8 (extended) hex digits";
    const std::pair<std::string, std::string> texts[] = {
        {"", "missing '#'"},
        {"#00", digits},
        {" 123#00", digits},
        {"12G#00", "identifier is not hexadecimal"},
        {"800#", "CAN identifier out of range"},
        {"20000000#", "CAN identifier out of range"},
        {"123#R9", "invalid remote frame length"},
        {"123#R10", "invalid remote frame length"},
        {"123##", "missing CAN FD flags nibble"},
        {"123##4", "invalid CAN FD flags nibble"},
        {"123#1.122", "separator inside a byte"},
        {"123#1 ", "separator inside a byte"},
        {"123#112", "odd number of payload digits"},
        {"123#1x", "payload is not hexadecimal"},
        {"123#11#", "payload is not hexadecimal"},
        {"123#" + kNine, "payload too long"},
        {"123##0" + repeated("5A", 65), "payload too long"},
    };
    for (const auto& [text, reason] : texts) {
        const auto frame = parseCanFrame(text);
        ASSERT_FALSE(frame) << text;
        EXPECT_EQ(frame.error().message, "invalid CAN frame '" + text + "': " + reason);
    }

    const std::tuple<std::uint32_t, std::uint8_t, std::uint8_t, const char*> frames[] = {
        {0x7FF, 8, CanFrame::remote, ""},
        {0x800, 0, 0, "CAN identifier out of range"},
        {0x20000000, 0, CanFrame::extended, "CAN identifier out of range"},
        {1, 9, 0, "classic CAN payload longer than 8 bytes"},
        {1, 8, CanFrame::brs, "BRS/ESI flags require a CAN FD frame"},
        {1, 10, CanFrame::fd, "invalid CAN FD payload length"},
        {1, 65, CanFrame::fd, "invalid CAN FD payload length"},
        {1, 12, CanFrame::fd | CanFrame::remote, "CAN FD does not support remote frames"},
    };
    for (const auto& [id, length, flags, error] : frames) {
        const auto valid = validate({.id = id, .length = length, .flags = flags});
        EXPECT_EQ(valid ? "" : valid.error().message, error);
    }
}

TEST(CanFrame, RoundsLengthsUpToThoseOfCanFd) {
    const std::size_t lengths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
    for (std::size_t length = 0, dlc = 0; length <= 65; ++length) {
        if (length > lengths[dlc] && dlc < 15) ++dlc;
        EXPECT_EQ(lengthToDlc(length), dlc) << length;
        EXPECT_EQ(roundUpCanFdLength(length), lengths[dlc]) << length;
    }
}

}  // namespace
}  // namespace lm::hal
