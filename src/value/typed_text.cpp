#include "value/typed_text.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <optional>
#include <utility>

#include "core/text.h"

namespace lm::value {
namespace {

/// What the text is as a number; none when it is not one.
std::optional<Value> parseNumber(std::string_view text, bool exact) {
    const auto number = Exact::parse(text);
    if (number && number->units == 0 && text.starts_with('-')) return -0.0;  // told as it was typed
    if (number && exact) return *number;
    if (const auto rounded = parseDouble(text)) return *rounded;
    return number ? std::optional<Value>(number->toDouble()) : std::nullopt;  // a hexadecimal one
}

double distanceOf(const Value& a, const Value& b) {
    const auto* exactA = std::get_if<Exact>(&a);
    const auto* exactB = std::get_if<Exact>(&b);
    return std::fabs(exactA != nullptr && exactB != nullptr ? (*exactA - *exactB).toDouble()
                                                            : toDouble(a) - toDouble(b));
}

/// What part of a number counts as none, beside what is not displayed: what the calculation with doubles
/// leaves of it.
double rounding(const Element& element, const Value& number) {
    constexpr double kRelative = 1e-12;
    return element.keepsIntegers() ? 0 : kRelative * std::fabs(toDouble(number));
}

/// Whether of the raw values in ascending order the physical ones ascend or descend throughout, so that the
/// way back leads beside the nearest one. A table that descends may not stand still: the way back takes the
/// wrong end of equal outputs.
bool isMonotonic(const Conversion::Kind& kind) {
    if (const auto* rational = std::get_if<Conversion::Rational>(&kind))
        return rational->a == 0 && rational->d == 0;
    if (const auto* table = std::get_if<Conversion::NumericTable>(&kind)) {
        const auto never = [table](auto wrong) {
            return std::adjacent_find(table->pairs.begin(), table->pairs.end(), wrong) == table->pairs.end();
        };
        return never([](const auto& a, const auto& b) { return !(a.second <= b.second); }) ||
               never([](const auto& a, const auto& b) { return !(a.second > b.second); });
    }
    const auto* formulas = std::get_if<Conversion::Formulas>(&kind);
    return formulas == nullptr || formulas->forward.asLinear();
}

/// The raw value so many steps of an integer type away.
Value beside(const Value& raw, int steps, const RawCoding& coding) {
    const Int128 distance = Int128{steps} * (Int128{1} << coding.leftShift);
    if (const auto* exact = std::get_if<Exact>(&raw)) return Exact{exact->units + distance};
    return toDouble(raw) + static_cast<double>(distance);
}

/// Whether no other value is nearer to a number than that of `raw`. Of a mask with holes, of a conversion
/// that turns and of a float behind a conversion that is not a straight line, that is not known.
bool isNearest(const Element& element, const Value& raw, const Value& number) {
    const RawCoding& coding = element.coding;
    const Conversion& conversion = *element.conversion;
    if (isFloat(coding.dataType))
        return conversion.isBinaryScale() || std::holds_alternative<Conversion::Linear>(conversion.kind());
    if (!isMonotonic(conversion.kind())) return false;
    const std::uint64_t mask = coding.bitMask;
    if (mask != 0 && !std::has_single_bit((mask >> std::countr_zero(mask)) + 1) && ~mask != 0) return false;
    const auto distance = [&](const Value& of) { return distanceOf(conversion.toPhysical(of), number); };
    const double least = distance(raw) - rounding(element, number);
    return !std::isnan(least) && !(distance(beside(raw, -1, coding)) < least) &&
           !(distance(beside(raw, 1, coding)) < least);
}

/// Which texts a verbal element takes; empty for others.
std::string validTexts(const Element& element) {
    constexpr std::size_t kMost = 20;
    const auto* table = std::get_if<Conversion::VerbalTable>(&element.conversion->kind());
    if (table == nullptr || table->ranges.empty()) return {};
    std::string text = element.name + " takes ";
    const std::size_t shown = std::min(table->ranges.size(), kMost);
    for (std::size_t i = 0; i < shown; ++i)
        text += (i == 0 ? "'" : ", '") + table->ranges[i].text + "'";
    if (shown < table->ranges.size())
        text += " and " + std::to_string(table->ranges.size() - shown) + " more (`describe` shows all)";
    return text + ", or a raw number";
}

}  // namespace

Result<Value> parseText(const Element& element, std::string_view text) {
    std::string notANumber = "'" + std::string(text) + "' is not a number";
    if (element.conversion->isVerbal()) {
        const Result<double> raw = element.conversion->rawFromText(text);
        if (raw) return Value(std::string(text));
        notANumber = raw.error().message;
    }
    if (auto number = parseNumber(text, element.keepsIntegers())) return std::move(*number);
    Error invalid{ErrorCode::invalidArgument, element.name + ": " + notANumber};
    invalid.hint = validTexts(element);
    return invalid;
}

std::string deviationText(const Element& element, std::string_view text, const Value& typed,
                          std::span<const std::uint8_t> bytes, NumberStyle style) {
    if (std::holds_alternative<std::string>(typed)) return "";
    const std::string shown = valueText(element, bytes.data(), style);
    const Value raw = rawValue(element, bytes.data());
    Value held = element.conversion->toPhysical(raw);
    double step = element.conversion->displayStep(toDouble(typed));
    if (style == NumberStyle::exact) {
        step = 0;
        // The digits of a float behind those that it needs are not shown.
        if (isFloat(element.coding.dataType)) held = parseDouble(shown).value_or(toDouble(held));
    }
    if (distanceOf(held, typed) <= step / 2 + rounding(element, typed)) return "";
    return std::string(text) + " is not possible, " +
           (isNearest(element, raw, typed) ? "the nearest value is " : "the ECU now holds ") + shown;
}

}  // namespace lm::value
