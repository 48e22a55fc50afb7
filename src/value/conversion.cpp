#include "value/conversion.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <set>
#include <system_error>

#include "core/text.h"

namespace lm::value {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr unsigned kFewestGeneralDecimals = 16;
constexpr std::size_t kLongestNumber = 63;
constexpr std::size_t kNoRange = std::numeric_limits<std::size_t>::max();

Error invalid(std::string message) {
    return {ErrorCode::invalidArgument, std::move(message)};
}

/// "Less" with NaN behind every number, so that sorting is defined whatever a table holds.
bool before(double a, double b) {
    return a < b || (std::isnan(b) && !std::isnan(a));
}

// The root with the positive square root is the one that A2L means, also where both are real.
double rationalToPhysical(const Conversion::Rational& r, double raw) {
    const double a = r.a - raw * r.d;
    const double b = r.b - raw * r.e;
    const double c = r.c - raw * r.f;
    double physical = kNan;
    if (std::fabs(a) < 1e-15) {
        if (b != 0) physical = -c / b;
    } else {
        const double discriminant = b * b - 4 * a * c;
        if (!(discriminant < 0)) physical = (std::sqrt(discriminant) - b) / (2 * a);
    }
    return physical + 0.0;  // a zero without a sign, which would be displayed
}

Result<double> rationalToRaw(const Conversion::Rational& r, double p) {
    const double denominator = r.d * p * p + r.e * p + r.f;
    if (denominator == 0) return invalid("RAT_FUNC denominator is 0");
    return (r.a * p * p + r.b * p + r.c) / denominator;
}

double lookUp(const Conversion::NumericTable& table, const TableIndex& index, double raw) {
    if (!table.defaultValue) return nearestOutput(table.pairs, index, raw);
    const std::size_t found = firstNotBelowBySearch(table.pairs, raw);
    const bool isThere = found != table.pairs.size() && table.pairs[found].first == raw;
    return isThere ? table.pairs[found].second : *table.defaultValue;
}

Result<double> lookUpInverse(const Conversion::NumericTable& table, double physical) {
    const auto found = std::find_if(table.pairs.begin(), table.pairs.end(),
                                    [physical](const TablePair& p) { return p.second == physical; });
    if (found == table.pairs.end()) return invalid("value not contained in the conversion table");
    return found->first;
}

Result<double> interpolateInverse(const Conversion::NumericTable& table, double physical) {
    TablePairs pairs = table.pairs;
    std::stable_sort(pairs.begin(), pairs.end(),
                     [](const TablePair& a, const TablePair& b) { return before(a.second, b.second); });
    if (!(physical >= pairs.front().second && physical <= pairs.back().second))
        return invalid("value outside the conversion table");
    if (physical == pairs.front().second) return pairs.front().first;
    if (physical == pairs.back().second) return pairs.back().first;
    const auto upper = std::partition_point(pairs.begin(), pairs.end(),
                                            [physical](const TablePair& p) { return p.second < physical; });
    const auto lower = std::prev(upper);
    return lower->first +
           (upper->first - lower->first) * (physical - lower->second) / (upper->second - lower->second);
}

std::optional<ExactLine> exactLineOf(const Conversion::Kind& kind) {
    if (const auto* linear = std::get_if<Conversion::Linear>(&kind))
        return ExactLine::make(linear->a, linear->b);
    if (const auto* r = std::get_if<Conversion::Rational>(&kind)) {
        if (r->a != 0 || r->d != 0 || r->e != 0 || r->b == 0) return std::nullopt;
        const Conversion::Linear line{r->f / r->b, -r->c / r->b};
        // A quotient that was rounded gives the same only nearly.
        const bool isRounded = std::fma(line.a, r->b, -r->f) != 0 || std::fma(line.b, r->b, r->c) != 0;
        return isRounded ? std::nullopt : ExactLine::make(line.a, line.b);
    }
    const bool same = std::holds_alternative<Conversion::Identical>(kind) ||
                      std::holds_alternative<Conversion::VerbalTable>(kind);
    return same ? std::optional(ExactLine()) : std::nullopt;
}

/// The decimals that a format such as "%8.3" asks for; none for the general notation.
std::optional<int> decimalsOf(std::string_view format) {
    const std::size_t point = format.find('.');
    if (point == std::string_view::npos) return std::nullopt;
    const std::string_view digits = format.substr(point + 1);
    unsigned decimals = 0;
    const auto [stop, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), decimals);
    if (failure == std::errc::result_out_of_range || decimals >= kFewestGeneralDecimals) return std::nullopt;
    return static_cast<int>(decimals);
}

}  // namespace

Conversion::Conversion(Kind kind, std::string format, std::string unit)
    : kind_(std::move(kind)), unit_(std::move(unit)), exactLine_(exactLineOf(kind_)) {
    setFormat(std::move(format));
    if (auto* table = std::get_if<NumericTable>(&kind_)) {
        std::stable_sort(table->pairs.begin(), table->pairs.end(),
                         [](const TablePair& a, const TablePair& b) { return before(a.first, b.first); });
        tableIndex_ = TableIndex(table->pairs);
    } else if (const auto* verbal = std::get_if<VerbalTable>(&kind_)) {
        indexRanges(*verbal);
    }
}

double Conversion::toPhysicalBySlowerKind(double raw) const {
    if (const auto* table = std::get_if<NumericTable>(&kind_)) {
        if (table->pairs.empty()) return kNan;
        return table->interpolate ? interpolate(table->pairs, tableIndex_, raw)
                                  : lookUp(*table, tableIndex_, raw);
    }
    if (const auto* formulas = std::get_if<Formulas>(&kind_)) return formulas->forward.evaluate(raw);
    if (const auto* rational = std::get_if<Rational>(&kind_)) return rationalToPhysical(*rational, raw);
    return raw;
}

Result<double> Conversion::toRaw(double physical) const {
    if (const auto* linear = std::get_if<Linear>(&kind_)) {
        if (linear->a == 0) return invalid("LINEAR conversion with factor 0 cannot be inverted");
        return (physical - linear->b) / linear->a;
    }
    if (const auto* rational = std::get_if<Rational>(&kind_)) return rationalToRaw(*rational, physical);
    if (const auto* table = std::get_if<NumericTable>(&kind_)) {
        if (table->pairs.empty()) return invalid("conversion table is empty");
        return table->interpolate ? interpolateInverse(*table, physical) : lookUpInverse(*table, physical);
    }
    if (const auto* formulas = std::get_if<Formulas>(&kind_)) {
        if (!formulas->inverse)
            return Error{ErrorCode::unsupported, "FORM conversion without FORMULA_INV cannot be inverted"};
        return formulas->inverse->evaluate(physical);
    }
    return physical;
}

void Conversion::indexRanges(const VerbalTable& table) {
    struct Edge {
        double value;
        std::size_t position;
        bool opens;
    };
    std::vector<Edge> edges;
    for (std::size_t i = 0; i < table.ranges.size(); ++i) {
        const VerbalTable::Range& range = table.ranges[i];
        if (!(range.lower <= range.upper)) continue;  // holds nothing, like one with a NaN bound
        edges.push_back({range.lower, i, true});
        edges.push_back({range.upper, i, false});
    }
    std::sort(edges.begin(), edges.end(), [](const Edge& a, const Edge& b) {
        return a.value < b.value || (a.value == b.value && a.opens && !b.opens);
    });
    std::set<std::size_t> open;
    const auto first = [&open] { return open.empty() ? kNoRange : *open.begin(); };
    for (auto edge = edges.begin(); edge != edges.end();) {
        VerbalBound bound{edge->value, kNoRange, kNoRange};
        for (; edge != edges.end() && edge->value == bound.value && edge->opens; ++edge)
            open.insert(edge->position);
        bound.at = first();
        for (; edge != edges.end() && edge->value == bound.value; ++edge)
            open.erase(edge->position);
        bound.behind = first();
        verbalBounds_.push_back(bound);
    }
}

std::optional<std::string_view> Conversion::verbalText(double raw) const {
    const auto* table = std::get_if<VerbalTable>(&kind_);
    if (table == nullptr) return std::nullopt;
    std::size_t position = kNoRange;
    const auto above = std::partition_point(verbalBounds_.begin(), verbalBounds_.end(),
                                            [raw](const VerbalBound& bound) { return bound.value <= raw; });
    if (above != verbalBounds_.begin()) {
        const VerbalBound& bound = *std::prev(above);
        position = bound.value == raw ? bound.at : bound.behind;
    }
    if (position != kNoRange) return table->ranges[position].text;
    if (!table->defaultText.empty()) return table->defaultText;
    return std::nullopt;
}

Result<double> Conversion::rawFromText(std::string_view text) const {
    const auto* table = std::get_if<VerbalTable>(&kind_);
    if (table == nullptr) return invalid("conversion is not verbal");
    for (const VerbalTable::Range& range : table->ranges)
        if (range.text == text) return range.lower;
    return invalid("'" + std::string(text) + "' is not a valid value");
}

Value Conversion::toPhysical(const Value& raw) const {
    const auto* exact = std::get_if<Exact>(&raw);
    if (exact != nullptr && exactLine_ && exact->exponent == 0) return exactLine_->physical(exact->units);
    return toPhysical(toDouble(raw));
}

std::string Conversion::format(double raw) const {
    if (const auto text = verbalText(raw)) return std::string(*text);
    return formatPhysical(toPhysical(raw));
}

std::string Conversion::formatPhysical(const Value& physical) const {
    if (const auto* text = std::get_if<std::string>(&physical)) return *text;
    const auto* exact = std::get_if<Exact>(&physical);
    std::string text = decimals_ == kGeneralFormat ? formatGeneral(toDouble(physical))
                       : exact != nullptr          ? exact->fixed(decimals_)
                                                   : formatFixed(toDouble(physical), decimals_);
    if (text.size() > kLongestNumber) text.resize(kLongestNumber);
    return text;
}

double Conversion::displayStep(double physical) const {
    constexpr int kGeneralDigits = 6;
    if (decimals_ != kGeneralFormat) return std::pow(10.0, -decimals_);
    if (physical == 0 || !std::isfinite(physical)) return 0;
    return std::pow(10.0, std::floor(std::log10(std::fabs(physical))) + 1 - kGeneralDigits);
}

void Conversion::setFormat(std::string format) {
    format_ = std::move(format);
    decimals_ = decimalsOf(format_).value_or(kGeneralFormat);
}

void Conversion::setUnit(std::string unit) {
    unit_ = std::move(unit);
}

}  // namespace lm::value
