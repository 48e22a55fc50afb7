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
