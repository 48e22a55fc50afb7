#include "exporter/mf4_conversion.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <limits>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>

namespace lm::exporter {
namespace {

using value::Conversion;
using VerbalRange = Conversion::VerbalTable::Range;

constexpr std::uint8_t kLinear = 1;
constexpr std::uint8_t kRational = 2;
constexpr std::uint8_t kInterpolating = 4;
constexpr std::uint8_t kNearest = 5;
constexpr std::uint8_t kValueToText = 7;
constexpr std::uint8_t kRangeToText = 8;
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kGreatest = std::numeric_limits<double>::max();

/// The least and the greatest value of an integer type behind its mask, as the nearest doubles.
std::pair<double, double> integerBounds(const value::RawCoding& coding) {
    const value::IntegerField field(coding);
    if (field.sign == 0) return {0, static_cast<double>(field.mask >> field.shift)};
    return {-static_cast<double>(field.sign), static_cast<double>(field.sign - 1)};
}

Mf4Conversion impossible(std::string obstacle) {
    Mf4Conversion conversion;
    conversion.obstacle = std::move(obstacle);
    return conversion;
}

Mf4Conversion express(const Conversion::Rational& r) {
    // raw = (b p + c) / (e p + f), so p = (f raw - c) / (b - e raw).
    if (r.a != 0 || r.d != 0) return impossible("rational function of the second degree");
    if (r.b == 0 && r.e == 0) return impossible("rational function without a solution");
    // The same calculation as here, so the same last digit; only where it is exact, the plainer form.
    if (r.e == 0 && r.b == 1) return {kLinear, {-r.c, r.f}, {}, {}};
    return {kRational, {0, r.f, -r.c, 0, -r.e, r.b}, {}, {}};
}

/// Exact matches of whole numbers, else the default. Readers differ in ranges with a default, but not in a
/// table whose keys have the default on both sides: then the nearest key is never another's.
Mf4Conversion matches(const std::vector<std::pair<double, double>>& pairs, double defaultValue) {
    constexpr double kEveryWhole = 0x1p53;  // below, each whole number is a double
    std::map<double, double> outputs;
    for (const auto& [input, output] : pairs) {
        if (std::isfinite(input) && std::floor(input) == input) outputs.emplace(input, output);
    }
    const std::map<double, double> keys = outputs;
    for (const auto& [key, output] : keys) {
        const bool isSmall = std::fabs(key) < kEveryWhole;
        outputs.emplace(isSmall ? key - 1 : std::nextafter(key, -kInfinity), defaultValue);
        outputs.emplace(isSmall ? key + 1 : std::nextafter(key, kInfinity), defaultValue);
    }
    if (outputs.empty()) outputs = {{0, defaultValue}, {1, defaultValue}};
    Mf4Conversion conversion;
    conversion.type = kNearest;
    for (const auto& [key, output] : outputs) {
        conversion.values.push_back(key);
        conversion.values.push_back(output);
    }
    return conversion;
}

Mf4Conversion express(const Conversion::NumericTable& table, bool isFloatSignal) {
    std::vector<std::pair<double, double>> pairs;
    for (const auto& pair : table.pairs) {
        if (std::isnan(pair.first)) return impossible("table with an input that is not a number");
        if (!pairs.empty() && pairs.back().first == pair.first) {
            if (table.interpolate && pairs.back().second != pair.second) {
                return impossible("table with a step");
            }
            continue;
        }
        pairs.push_back(pair);
    }
    if (pairs.empty()) return impossible("table without values");
    if (!table.interpolate && table.defaultValue) {
        if (isFloatSignal) return impossible("table with a default value on a float");
        return matches(pairs, *table.defaultValue);
    }
    Mf4Conversion conversion;
    conversion.type = table.interpolate ? kInterpolating : kNearest;
    for (const auto& [input, output] : pairs) {
        conversion.values.push_back(input);
        conversion.values.push_back(output);
    }
    return conversion;
}

/// Values from `lower` up to, but without, `end`, and their text.
struct Span {
    double lower;
    double end;
    const std::string* text;
};

/// MDF compares the end of a range with <= for integers and with < for floats.
double behind(double upper, bool isFloatSignal) {
    if (isFloatSignal || std::fabs(upper) >= 0x1p53) return std::nextafter(upper, kInfinity);
    return std::floor(upper) + 1;
}

double lastOf(double end, bool isFloatSignal) {
    if (isFloatSignal) return end;
    return std::fabs(end) > 0x1p53 ? std::nextafter(end, -kInfinity) : end - 1;
}

/// The ranges cut so that none overlaps: the first one that holds a value wins, which readers of MDF need
/// not know.
std::vector<Span> disjoint(const std::vector<VerbalRange>& ranges, bool isFloatSignal) {
    std::vector<Span> spans;  // ascending
    for (const VerbalRange& range : ranges) {
        if (!(range.lower <= range.upper)) continue;
        double lower = isFloatSignal ? range.lower : std::ceil(range.lower);
        const double end = behind(range.upper, isFloatSignal);
        if (spans.empty() || spans.back().end <= lower) {
            if (lower < end) spans.push_back({lower, end, &range.text});
            continue;
        }
        std::vector<Span> pieces;
        for (const Span& taken : spans) {
            if (taken.end <= lower) continue;
            if (taken.lower >= end) break;
            if (lower < taken.lower) pieces.push_back({lower, taken.lower, &range.text});
            lower = taken.end;
        }
        if (lower < end) pieces.push_back({lower, end, &range.text});
        std::vector<Span> merged;
        std::merge(spans.begin(), spans.end(), pieces.begin(), pieces.end(), std::back_inserter(merged),
                   [](const Span& a, const Span& b) { return a.lower < b.lower; });
        spans = std::move(merged);
    }
    return spans;
}

/// What the raw values can reach of the ranges: readers make raw values of the bounds, and some overflow.
std::vector<VerbalRange> clamped(std::vector<VerbalRange> ranges, const value::RawCoding& coding) {
    const auto [lowest, highest] = integerBounds(coding);
    for (VerbalRange& range : ranges) {
        range.lower = std::max(range.lower, lowest);  // beyond the highest: an empty range
        range.upper = std::min(range.upper, highest);
    }
    return ranges;
}

Mf4Conversion express(const Conversion::VerbalTable& table, const value::RawCoding& coding) {
    const bool isFloatSignal = value::isFloat(coding.dataType);
    const auto reachable = isFloatSignal ? table.ranges : clamped(table.ranges, coding);
    std::vector<Span> spans = disjoint(reachable, isFloatSignal);
    if (spans.empty() && table.defaultText.empty()) return {};
    Mf4Conversion conversion;
    const bool plain =
        !spans.empty() && std::all_of(table.ranges.begin(), table.ranges.end(),
                                      [](const VerbalRange& range) { return range.lower == range.upper; });
    if (spans.empty()) {
        const double highest = isFloatSignal ? kGreatest : integerBounds(coding).second;
        const double lowest = isFloatSignal ? -kGreatest : integerBounds(coding).first;
        spans.push_back({lowest, behind(highest, isFloatSignal), &table.defaultText});
    }
    conversion.type = plain ? kValueToText : kRangeToText;
    for (const Span& span : spans) {
        conversion.values.push_back(std::max(span.lower, -kGreatest));
        if (!plain) conversion.values.push_back(std::min(lastOf(span.end, isFloatSignal), kGreatest));
        conversion.texts.emplace_back(*span.text);
    }
    conversion.texts.emplace_back();
    if (!table.defaultText.empty()) conversion.texts.back() = table.defaultText;
    return conversion;
}

/// Whether the line and the formula differ by rounding alone, at raw values across the whole range.
bool agree(const value::Formula& formula, const value::Formula::Linear& line,
           const value::RawCoding& coding) {
    constexpr double kFew = 4 * std::numeric_limits<double>::epsilon();
    constexpr int kSteps = 64;
    const auto [lowest, highest] =
        value::isFloat(coding.dataType) ? std::pair(-1e6, 1e6) : integerBounds(coding);
    for (int i = 0; i <= 2 * kSteps; ++i) {
        const double across = lowest + (highest - lowest) * i / (2 * kSteps);
        for (const double x : {std::floor(across), double(i - kSteps)}) {
            const double difference = std::fabs(line.a * x + line.b - formula.evaluate(x));
            if (!(difference <= kFew * (std::fabs(line.a * x) + std::fabs(line.b)))) return false;
        }
    }
    return true;
}

Mf4Conversion express(const Conversion::Formulas& formulas, const value::RawCoding& coding) {
    const auto line = formulas.forward.asLinear();
    if (line && agree(formulas.forward, *line, coding)) return {kLinear, {line->b, line->a}, {}, {}};
    return impossible("formula " + formulas.forward.text());
}

Mf4Conversion expressAny(const storage::SignalInfo& signal) {
    const bool isFloatSignal = value::isFloat(signal.coding.dataType);
    const Conversion::Kind& kind = signal.conversion->kind();
    if (const auto* linear = std::get_if<Conversion::Linear>(&kind)) {
        return {kLinear, {linear->b, linear->a}, {}, {}};
    }
    if (const auto* rational = std::get_if<Conversion::Rational>(&kind)) return express(*rational);
    if (const auto* table = std::get_if<Conversion::NumericTable>(&kind)) {
        return express(*table, isFloatSignal);
    }
    if (const auto* verbal = std::get_if<Conversion::VerbalTable>(&kind)) {
        return express(*verbal, signal.coding);
    }
    if (const auto* formulas = std::get_if<Conversion::Formulas>(&kind)) {
        return express(*formulas, signal.coding);
    }
    return {};
}

}  // namespace

Mf4Conversion mf4Conversion(const storage::SignalInfo& signal) {
    Mf4Conversion conversion = expressAny(signal);
    constexpr std::size_t kMaxCount = std::numeric_limits<std::uint16_t>::max();
    if (std::max(conversion.values.size(), conversion.texts.size()) > kMaxCount) {
        return impossible("table of more than 65535 values");
    }
    return conversion;
}

std::optional<std::uint8_t> mf4Precision(const std::string& format) {
    const std::size_t point = format.find('.');
    if (point == std::string::npos) return std::nullopt;
    std::uint8_t decimals = 0;
    const auto [end, failure] =
        std::from_chars(format.data() + point + 1, format.data() + format.size(), decimals);
    if (failure == std::errc::result_out_of_range || decimals > 15) return std::nullopt;
    return decimals;
}

Mf4Blocks::Link addConversion(Mf4Blocks& blocks, const Mf4Conversion& conversion, Mf4Blocks::Link unit,
                              std::optional<std::uint8_t> precision) {
    if (conversion.type == 0) return 0;
    std::vector<Mf4Blocks::Link> links = {0, unit, 0, 0};
    for (const auto& text : conversion.texts)
        links.push_back(text ? blocks.text(*text) : 0);
    Mf4Fields data;
    data.put(conversion.type).put(precision.value_or(0));
    data.put(static_cast<std::uint16_t>(precision ? 1 : 0));
    data.put(static_cast<std::uint16_t>(conversion.texts.size()));
    data.put(static_cast<std::uint16_t>(conversion.values.size()));
    data.put(0.0).put(0.0);
    for (const double value : conversion.values)
        data.put(value);
    return blocks.add("CC", links, data);
}

}  // namespace lm::exporter
