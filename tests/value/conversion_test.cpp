#include "value/conversion.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "core/text.h"

namespace lm::value {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
using Pairs = std::vector<std::pair<double, double>>;

bool same(double a, double b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

// What has numbers both ways is that of the campaign `set_safety`.
TEST(Conversion, NumbersThatAreNone) {
    const Conversion::NumericTable line{true, {{10, 100}, {0, 0}}, 7.0};
    const Conversion::NumericTable steps{false, {{4, 40}, {2, 20}}, {}};
    const Conversion::NumericTable defaulted{false, {{1, 10}}, -1.0};
    const struct {
        Conversion::Kind kind;
        double raw;
        double physical;
        std::string error;  // of the way back
    } rows[] = {{Conversion::Linear{kNan, 0}, 3, kNan, ""},
                {Conversion::Rational{1, 0, 0, 0, 0, 1}, -9, kNan, ""},
                {line, kNan, kNan, "value outside the conversion table"},
                {steps, kNan, kNan, "value not contained in the conversion table"},
                {defaulted, kNan, -1, "value not contained in the conversion table"}};
    for (const auto& row : rows) {
        const Conversion conversion(row.kind, "", "");
        EXPECT_PRED2(same, conversion.toPhysical(row.raw), row.physical) << row.kind.index();
        const Result<double> back = conversion.toRaw(row.physical);
        EXPECT_EQ(back ? "" : back.error().text(), row.error);
        EXPECT_TRUE(!back || std::isnan(back.value()));
    }
}

// The output of the nearest input by a plain scan.
double scanNearest(const Pairs& sorted, double raw) {
    const std::pair<double, double>* best = &sorted[0];
    for (const auto& pair : sorted) {
        if (pair.first == raw) return pair.second;
        if (std::fabs(pair.first - raw) < std::fabs(best->first - raw)) best = &pair;
    }
    return best->second;
}

// What lies between two neighbours by a plain scan.
double scanLine(const Pairs& sorted, double raw) {
    if (raw <= sorted.front().first) return sorted.front().second;
    if (raw >= sorted.back().first) return sorted.back().second;
    std::size_t i = 0;
    while (sorted[i].first < raw)
        ++i;
    return sorted[i - 1].second + (sorted[i].second - sorted[i - 1].second) * (raw - sorted[i - 1].first) /
                                      (sorted[i].first - sorted[i - 1].first);
}

// Tables as large and as uneven as needed to fill several entries of the index's buckets, at every input,
// beside it and between it and the next.
TEST(Conversion, IndexedTablesAnswerLikeAScanInOrder) {
    std::mt19937 random(3);
    for (int round = 0; round < 60; ++round) {
        Pairs pairs;
        Conversion::VerbalTable verbal;
        double input = -1e3;
        for (auto i = random() % 120 + 2; i > 0; --i) {
            // Gaps from none over 2^-20 to 2^9, in every third table all alike.
            const int exponent = round % 3 == 0 ? 4 : static_cast<int>(random() % 30) - 20;
            input += random() % 5 == 0 && round % 3 == 1 ? 0 : std::ldexp(1, exponent);
            pairs.emplace_back(input, static_cast<double>(random() % 1000));
            const double lower = input - static_cast<double>(random() % 40);
            verbal.ranges.push_back({lower, lower + std::ldexp(random() % 7, exponent), std::to_string(i)});
        }
        const Conversion nearest(Conversion::NumericTable{false, pairs, {}}, "", "");
        const Conversion line(Conversion::NumericTable{true, pairs, {}}, "", "");
        const Conversion texts(verbal, "", "");
        std::vector<double> raws = {-kInfinity, -1e300, -1e4, 1e300, kInfinity};
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            const double here = pairs[i].first;
            const double next = pairs[std::min(i + 1, pairs.size() - 1)].first;
            for (const double raw : {here, std::nextafter(here, -kInfinity), std::nextafter(here, kInfinity),
                                     here + (next - here) / 2, here + (next - here) * 0.7})
                raws.push_back(raw);
        }
        for (const double raw : raws) {
            if (std::isfinite(raw)) {
                EXPECT_EQ(nearest.toPhysical(raw), scanNearest(pairs, raw)) << raw;
            }
            EXPECT_EQ(line.toPhysical(raw), scanLine(pairs, raw)) << raw;
            const auto first = std::find_if(verbal.ranges.begin(), verbal.ranges.end(), [raw](const auto& r) {
                return r.lower <= raw && raw <= r.upper;
            });
            EXPECT_EQ(texts.verbalText(raw).value_or(""), first == verbal.ranges.end() ? "" : first->text);
        }
    }
}

TEST(Conversion, VerbalTextsAndDisplay) {
    const Conversion verbal(Conversion::VerbalTable{{{1, 3, "on"}, {3, 4, "off"}}, ""}, "%5.1", "");
    EXPECT_EQ(verbal.format(3) + verbal.format(3.5) + verbal.format(5), "onoff5.0");
    EXPECT_EQ(verbal.rawFromText("on").value(), 1);
    EXPECT_EQ(verbal.rawFromText("On").error().text(), "'On' is not a valid value");
    EXPECT_EQ(Conversion(Conversion::VerbalTable{{}, "?"}, "", "").format(kNan), "?");
    EXPECT_EQ(Conversion().rawFromText("on").error().text(), "conversion is not verbal");

    const struct {
        const char* format;
        double value;
        std::string text;
    } kRows[] = {
        // clang-format off
        {"%8.2", 3.14159, "3.14"}, {"%8.20", 3.14159, "3.14159"}, {"", 1234567, "1.23457e+06"},
        {"%3.", 2.6, "3"}, {"%.15f", 1, "1.000000000000000"}, {"%.99999999999", 0.5, "0.5"},
        {"%.3", -kNan, "nan"}, {"%.0", 1e80, formatFixed(1e80, 0).substr(0, 63)}, {"%4.x", 2.4, "2"}
        // clang-format on
    };
    for (const auto& row : kRows)
        EXPECT_EQ(Conversion({}, row.format, "").format(row.value), row.text) << row.format;
}

}  // namespace
}  // namespace lm::value
