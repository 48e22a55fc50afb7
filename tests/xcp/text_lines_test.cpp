#include "xcp/text_lines.h"

#include <gtest/gtest.h>

namespace lm::xcp {
namespace {

/// What came out, every line in angle brackets.
class TextLinesTest : public ::testing::Test {
  protected:
    void add(std::string_view text) {
        lines_.add(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), now_);
    }
    void pass(int milliseconds) {
        now_ += std::chrono::milliseconds(milliseconds);
        lines_.handOnWhenSilent(now_);
    }
    std::string taken() { return std::exchange(log_, {}); }

    std::string log_;
    TextLines::Clock::time_point now_{};
    TextLines lines_{[this](std::string_view line) { log_.append("<").append(line).append(">"); }};
};

TEST(PrintableText, CannotControlATerminal) {
    const std::pair<std::string_view, std::string> rows[] = {
        {"plain\ttext ~", "plain\ttext ~"},
        {"\x1B[2J\a\b\x7F", "\\x1B[2J\\x07\\x08\\x7F"},
        {{"a\0b\r", 4}, "a\\x00b\\x0D"},
        {"20 \u00B0C \u20AC \U0001F600", "20 \u00B0C \u20AC \U0001F600"},
        {"\u0080\u009B2J\u009F\u00A0", "\\xC2\\x80\\xC2\\x9B2J\\xC2\\x9F\u00A0"},
        {"\x9B"
         "2J\xB0\xFF\xFE",
         "\\x9B2J\\xB0\\xFF\\xFE"},
        {"\xC0\x80\xE2\x82", "\\xC0\\x80\\xE2\\x82"},
        {"\xE2\x82"
         "A\xED\xA0\x80\xF5\x80\x80\x80",
         "\\xE2\\x82A\\xED\\xA0\\x80\\xF5\\x80\\x80\\x80"},
    };
    for (const auto& [bytes, expected] : rows) {
        EXPECT_EQ(printableText(bytes), expected);
    }
}

TEST_F(TextLinesTest, EndAtLineFeeds) {
    add("one\r\n\ntwo\r\r\nth");
    EXPECT_EQ(taken(), "<one><><two>");
    add("ree\n\r\n");
    EXPECT_EQ(taken(), "<three><>");
}

TEST_F(TextLinesTest, HandOnAPartAfterSilenceAndNoEmptyLineForItsEnd) {
    add("login: ");
    pass(200);
    EXPECT_EQ(taken(), "");
    add("me");
    pass(200);
    EXPECT_EQ(taken(), "");
    pass(1);
    EXPECT_EQ(taken(), "<login: me>");
    add("\r\n\nnext\r");
    pass(1000);
    EXPECT_EQ(taken(), "<><next>");
    add("\n");
    pass(1000);
    EXPECT_EQ(taken(), "");
}

TEST_F(TextLinesTest, CutLongLinesBetweenCharacters) {
    const std::string most(TextLines::kLongestPart - 2, 'x');
    add(most + "\u20AC" + "y");
    EXPECT_EQ(taken(), "<" + most + ">");
    add("\n" + most + "xx\n" + most + "\xFF\xFFz\n");
    EXPECT_EQ(taken(), "<\u20ACy><" + most + "xx><" + most + "\\xFF\\xFF><z>");
}

}  // namespace
}  // namespace lm::xcp
