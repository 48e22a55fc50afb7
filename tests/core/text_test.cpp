#include "core/text.h"

#include <clocale>
#include <cmath>
#include <limits>
#include <map>

#include <gtest/gtest.h>

#include "core/printable_text.h"

namespace lm {
namespace {

using namespace std::string_literals;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(Text, Utf8IsToldFromOtherEncodingsAndMadeOfThem) {
    for (const char* text : {"", "plain ASCII, longer than eight bytes", "°C", "€", "😀", "12345678ä"})
        EXPECT_TRUE(isValidUtf8(text)) << text;
    for (const char* text : {"\xB0", "\xC2", "\xC0\xAF", "\xED\xA0\x80", "\xE2\x82", "\xF4\x90\x80\x80",
                             "\xF5\x80\x80\x80", "1234567\xE4\xF6", "\xC3("})
        EXPECT_FALSE(isValidUtf8(text)) << text;

    EXPECT_EQ(windows1252ToUtf8("\xB0\x43 \x80 \xFC\x81"), "°C € ü\uFFFD");
    EXPECT_EQ(utf16ToUtf8("\0A\x20\xAC"s, true), "A€");
    EXPECT_EQ(utf16ToUtf8("A\0\xAC\x20\x3D\xD8\0\xDE"s, false), "A€😀");
    EXPECT_EQ(utf16ToUtf8("\x3D\xD8\x41\0B"s, false), "\uFFFDA\uFFFD");
    EXPECT_EQ(utf16ToUtf8("\x3D\xD8"s, false), "\uFFFD");
}

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

TEST(PrintableText, CommandsCanBeTypedAgain) {
    const std::string words[] = {"a-b", "--x=1,2", "", "rises(n>1)", "it's \x1B", "{n}"};
    EXPECT_EQ(commandText(words), R"(a-b --x=1,2 '' 'rises(n>1)' 'it'\''s \x1B' '{n}')");
}

TEST(Text, UnsignedNumbersUseUpTheWholeText) {
    constexpr std::uint64_t kMaximum = 0xFFFFFFFF;
    const std::map<std::string, std::uint64_t> rows = {
        {"0", 0}, {"0x7E0", 0x7E0}, {"0X7e0", 0x7E0}, {"010", 8}, {"4294967295", kMaximum}};
    for (const auto& [text, value] : rows)
        EXPECT_EQ(parseUnsigned(text, NumberBase::automatic, kMaximum).value(), value) << text;
    EXPECT_EQ(parseUnsigned("010", NumberBase::decimal, kMaximum).value(), 10U);
    for (const NumberBase base : {NumberBase::automatic, NumberBase::decimal}) {
        for (const char* text :
             {"4294967296", "99999999999999999999", "7E0", "0x", "0x-1", "", " 1", "-1", "+1", "3x"})
            EXPECT_FALSE(parseUnsigned(text, base, kMaximum).ok()) << text;
    }
    EXPECT_FALSE(parseUnsigned("08", NumberBase::automatic, kMaximum).ok());
    EXPECT_FALSE(parseUnsigned("0x7", NumberBase::decimal, kMaximum).ok());
    EXPECT_EQ(parseUnsigned("3x", NumberBase::decimal, 65535).error().text(),
              "stoul: '3x' is not a number from 0 to 65535");
}

TEST(Text, DoublesUseUpTheWholeText) {
    const std::map<std::string, double> rows = {
        {"-1.5e3", -1500}, {"+3", 3}, {".5", 0.5}, {"inf", kInfinity}, {"-1e400", -kInfinity}, {"1e-400", 0}};
    for (const auto& [text, value] : rows)
        EXPECT_EQ(parseDouble(text), value) << text;
    const std::string zeros(400, '0');
    EXPECT_EQ(parseDouble("1" + zeros), kInfinity);
    EXPECT_EQ(parseDouble("0." + zeros + "1"), 0.0);
    // The magnitude decides, not the sign of the exponent or the place of the point.
    EXPECT_EQ(parseDouble("1" + zeros + "E-1"), kInfinity);
    EXPECT_EQ(parseDouble("-1" + zeros + ".5e-401"), -0.1);
    EXPECT_EQ(parseDouble("0." + zeros + "1e50"), 0.0);
    EXPECT_EQ(parseDouble("0." + zeros + "1e+800"), kInfinity);
    EXPECT_EQ(parseDouble("1e-99999999999999999999"), 0.0);
    EXPECT_EQ(parseDouble("-.1e99999999999999999999"), -kInfinity);
    EXPECT_TRUE(std::isnan(*parseDouble("nan")));
    for (const char* text : {"", "1,5", "1.5 ", "+-1", "0x10", "ten", "--1", "1e", "+"})
        EXPECT_FALSE(parseDouble(text).has_value()) << text;
}

TEST(Text, NumbersPrintAlikeInEveryLocale) {
    std::setlocale(LC_ALL, "");
    EXPECT_EQ(formatFixed(3.14159, 2), "3.14");
    EXPECT_EQ(formatFixed(-0.5, 0), "-0");
    EXPECT_EQ(formatGeneral(1234567.0), "1.23457e+06");
    EXPECT_EQ(formatGeneral(-std::numeric_limits<double>::quiet_NaN()), "nan");
    EXPECT_EQ(formatFixed(-kInfinity, 2), "-inf");
    EXPECT_EQ(formatFixed(1e308, 3).size(), 309U + 4U);
    EXPECT_EQ(formatShortest(0.1F) + formatShortest(0.1), "0.10.1");
}

}  // namespace
}  // namespace lm
