#include "exporter/number_text.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace lm::exporter {
namespace {

std::string shortest(double value) {
    char text[kNumberWidth];
    return {text, writeShortest(text, value)};
}

std::string standard(double value) {
    char text[64];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

// The short way must choose what the standard library chooses, in notation and in every digit.
TEST(NumberText, ShortestIsThatOfTheStandardLibrary) {
    std::mt19937_64 random(1);
    const auto check = [](double value) {
        for (const double v : {value, -value, std::nextafter(value, 1e300), std::nextafter(value, -1e300)}) {
            ASSERT_EQ(shortest(v), std::isnan(v) ? "nan" : standard(v));
        }
    };
    for (int exponent = -12; exponent <= 17; ++exponent) {
        for (int digits = 1; digits <= 2000; ++digits)
            check(std::strtod((std::to_string(digits) + "e" + std::to_string(exponent)).c_str(), nullptr));
    }
    for (int i = 0; i < 200000; ++i) {
        const std::uint64_t bits = random();
        check(std::bit_cast<double>(bits));
        check(static_cast<double>(bits % 4000000000) / 1e6);
        check(static_cast<double>(static_cast<float>(bits % 100000) * 0.1F));
    }
    check(std::numeric_limits<double>::infinity());
    EXPECT_EQ(shortest(std::numeric_limits<double>::quiet_NaN()), "nan");
    EXPECT_EQ(shortest(-std::numeric_limits<double>::quiet_NaN()), "nan");
}

TEST(NumberText, SecondsAreExact) {
    const std::pair<std::int64_t, const char*> rows[] = {
        {0, "0"},
        {1, "0.000000001"},
        {-1500000000, "-1.5"},
        {12000000, "0.012"},
        {std::numeric_limits<std::int64_t>::max(), "9223372036.854775807"},
        {std::numeric_limits<std::int64_t>::min(), "-9223372036.854775808"},
    };
    for (const auto& [nanoseconds, expected] : rows) {
        char text[kNumberWidth];
        EXPECT_EQ(std::string(text, writeSeconds(text, nanoseconds)), expected);
    }
}

}  // namespace
}  // namespace lm::exporter
