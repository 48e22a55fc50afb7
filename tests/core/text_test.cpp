#include "core/text.h"

#include <clocale>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace lm {
namespace {

using namespace std::string_literals;

TEST(Text, Utf8IsToldFromOtherBytes) {
    const std::string good[] = {"",
                                "plain ASCII, longer than eight bytes",
                                "\xC2\xB0\x43",
                                "\xE2\x82\xAC",
                                "\xF0\x9F\x98\x80",
                                "12345678\xC3\xA4"};
    for (const std::string& text : good)
        EXPECT_TRUE(isValidUtf8(text)) << text;
    const std::string bad[] = {"\xB0",
                               "\xC2",
                               "\xC0\xAF",
                               "\xED\xA0\x80",
                               "\xE2\x82",
                               "\xF4\x90\x80\x80",
                               "\xF5\x80\x80\x80",
                               "1234567\xE4\xF6",
                               "\xC3("};
    for (const std::string& text : bad)
        EXPECT_FALSE(isValidUtf8(text)) << text;
}

TEST(Text, ForeignEncodingsBecomeUtf8) {
    EXPECT_EQ(windows1252ToUtf8("\xB0\x43 \x80 \xFC\x81"), "°C € ü\uFFFD");
    EXPECT_EQ(utf16ToUtf8("A\0\xAC\x20\x3D\xD8\0\xDE"s, false), "A€😀");
    EXPECT_EQ(utf16ToUtf8("\0A\x20\xAC"s, true), "A€");
    EXPECT_EQ(utf16ToUtf8("\x3D\xD8"
                          "A\0B"s,
                          false),
              "\uFFFDA\uFFFD");
    EXPECT_EQ(utf16ToUtf8("\x3D\xD8"s, false), "\uFFFD");
}

TEST(Text, UnsignedNumbersUseUpTheWholeText) {
    struct Row {
        const char* text;
        NumberBase base;
        std::uint64_t maximum;
        std::int64_t value;  // -1: refused
    };
    const Row rows[] = {
        {"0", NumberBase::automatic, 10, 0},
        {"0x7E0", NumberBase::automatic, 0xFFFFFFFF, 0x7E0},
        {"0X7e0", NumberBase::automatic, 0xFFFFFFFF, 0x7E0},
        {"010", NumberBase::automatic, 100, 8},
        {"010", NumberBase::decimal, 100, 10},
        {"4294967295", NumberBase::automatic, 0xFFFFFFFF, 0xFFFFFFFF},
        {"4294967296", NumberBase::automatic, 0xFFFFFFFF, -1},
        {"99999999999999999999", NumberBase::decimal, ~0ULL, -1},
        {"7E0", NumberBase::automatic, 0xFFFFFFFF, -1},
        {"3x", NumberBase::decimal, 100, -1},
        {"08", NumberBase::automatic, 100, -1},
        {"0x", NumberBase::automatic, 100, -1},
        {"0x-1", NumberBase::automatic, 100, -1},
        {"0x7", NumberBase::decimal, 100, -1},
        {"", NumberBase::decimal, 100, -1},
        {" 1", NumberBase::decimal, 100, -1},
        {"-1", NumberBase::decimal, 100, -1},
        {"+1", NumberBase::decimal, 100, -1},
        {"65536", NumberBase::decimal, 65535, -1},
    };
    for (const Row& row : rows) {
        const auto result = parseUnsigned(row.text, row.base, row.maximum);
        ASSERT_EQ(result.ok(), row.value >= 0) << row.text;
        if (result.ok()) {
            EXPECT_EQ(result.value(), static_cast<std::uint64_t>(row.value)) << row.text;
        }
    }
    EXPECT_EQ(parseUnsigned("3x", NumberBase::decimal, 65535).error().text(),
              "stoul: '3x' is not a number from 0 to 65535");
}

TEST(Text, DoublesUseUpTheWholeText) {
    EXPECT_EQ(parseDouble("-1.5e3"), -1500.0);
    EXPECT_EQ(parseDouble("+3"), 3.0);
    EXPECT_EQ(parseDouble(".5"), 0.5);
    EXPECT_EQ(parseDouble("inf"), std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(*parseDouble("nan")));
    EXPECT_EQ(parseDouble("1e400"), std::numeric_limits<double>::infinity());
    EXPECT_EQ(parseDouble("-1e400"), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(parseDouble("1e-400"), 0.0);
    EXPECT_EQ(parseDouble("1" + std::string(400, '0')), std::numeric_limits<double>::infinity());
    EXPECT_EQ(parseDouble("0." + std::string(400, '0') + "1"), 0.0);
    for (const char* text : {"", "1,5", "1.5 ", "+-1", "0x10", "ten", "--1", "1e", "+"}) {
        EXPECT_FALSE(parseDouble(text).has_value()) << text;
    }
}

TEST(Text, NumbersPrintAlikeInEveryLocale) {
    std::setlocale(LC_ALL, "");
    EXPECT_EQ(formatFixed(3.14159, 2), "3.14");
    EXPECT_EQ(formatFixed(-0.5, 0), "-0");
    EXPECT_EQ(formatGeneral(1234567.0), "1.23457e+06");
    EXPECT_EQ(formatGeneral(0.0001), "0.0001");
    EXPECT_EQ(formatGeneral(-std::numeric_limits<double>::quiet_NaN()), "nan");
    EXPECT_EQ(formatFixed(-std::numeric_limits<double>::infinity(), 2), "-inf");
    EXPECT_EQ(formatFixed(1e308, 3).size(), 309U + 4U);
}

}  // namespace
}  // namespace lm
