#include "a2l/typed_text.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

#include "core/text.h"

namespace lm::a2l {
namespace {

template <typename Float>
std::optional<long double> parseHexadecimal(std::string_view digits) {
    if (digits.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos || digits.empty())
        return std::nullopt;
    Float value = 0;
    const char* end = digits.data() + digits.size();
    const auto read = std::from_chars(digits.data(), end, value, std::chars_format::hex);
    return read.ec == std::errc() ? value : std::numeric_limits<Float>::infinity();
}

/// What the text is as a number, as a long double or rounded to a double: none when it is not one.
std::optional<long double> parseTyped(std::string_view text, bool exact) {
    std::string_view rest = text;
    const bool negative = !rest.empty() && rest[0] == '-';
    if (!rest.empty() && (rest[0] == '-' || rest[0] == '+')) rest.remove_prefix(1);
    if (!rest.starts_with("0x") && !rest.starts_with("0X")) {
        const std::optional<double> number = parseDouble(text);
        // What a double takes for 0 or for infinite, is so for all.
        if (!exact || !number || *number == 0 || !std::isfinite(*number)) return number;
        return parseLongDouble(text);
    }
    rest.remove_prefix(2);
    auto value = exact ? parseHexadecimal<long double>(rest) : parseHexadecimal<double>(rest);
    if (value && negative) value = -*value;
    return value;
}

/// What part of a number counts as none, beside what is not displayed: what the calculation with doubles
/// leaves of it.
long double rounding(const ResolvedObject& object, long double number) {
    constexpr long double kRelative = 1e-12L;
    return object.keepsIntegers() ? 0 : kRelative * std::fabs(number);
}

/// Whether of the raw values in ascending order the physical ones ascend or descend throughout, so that the
/// way back leads beside the nearest one. A table that descends may not stand still: the way back takes the
/// wrong end of equal outputs.
bool isMonotonic(const value::Conversion::Kind& kind) {
    if (const auto* rational = std::get_if<value::Conversion::Rational>(&kind))
        return rational->a == 0 && rational->d == 0;
    if (const auto* table = std::get_if<value::Conversion::NumericTable>(&kind)) {
        const auto never = [table](auto wrong) {
            return std::adjacent_find(table->pairs.begin(), table->pairs.end(), wrong) == table->pairs.end();
        };
        return never([](const auto& a, const auto& b) { return !(a.second <= b.second); }) ||
               never([](const auto& a, const auto& b) { return !(a.second > b.second); });
    }
    const auto* formulas = std::get_if<value::Conversion::Formulas>(&kind);
    return formulas == nullptr || formulas->forward.asLinear();
}

/// Whether no other value is nearer to a number than that of `raw`. Of a mask with holes, of a conversion
/// that turns and of a float behind a conversion that is not a straight line, that is not known.
bool isNearest(const ResolvedObject& object, long double raw, long double number) {
    const value::RawCoding& coding = object.coding;
    const value::Conversion& conversion = object.conversion;
    if (value::isFloat(coding.dataType)) {
        return conversion.binaryExponent() ||
               std::holds_alternative<value::Conversion::Linear>(conversion.kind());
    }
    if (!isMonotonic(conversion.kind())) return false;
    const std::uint64_t mask = coding.bitMask;
    if (mask != 0 && !std::has_single_bit((mask >> std::countr_zero(mask)) + 1) && ~mask != 0) return false;
    const auto distance = [&](long double of) { return std::fabs(conversion.toPhysicalExact(of) - number); };
    const long double step = std::ldexp(1.0L, coding.leftShift);
    const long double least = distance(raw) - rounding(object, number);
    return !std::isnan(least) && !(distance(raw - step) < least) && !(distance(raw + step) < least);
}

}  // namespace

Result<std::optional<long double>> encodeText(const ResolvedObject& object, std::string_view text,
                                              std::span<std::uint8_t> buffer) {
    std::string notANumber = "'" + std::string(text) + "' is not a number";
    if (object.conversion.isVerbal()) {
        const Result<double> raw = object.conversion.rawFromText(text);
        if (raw) {
            const auto encoded = encodePhysical(object, raw.value(), buffer);
            if (!encoded) return encoded.error();
            return std::optional<long double>();
        }
        notANumber = raw.error().message;
    }
    const std::optional<long double> number = parseTyped(text, object.keepsIntegers());
    if (!number) return Error{ErrorCode::invalidArgument, object.name + ": " + notANumber};
    const auto encoded = encodePhysical(object, *number, buffer);
    if (!encoded) return encoded.error();
    return number;
}

std::string deviationText(const ResolvedObject& object, std::string_view text, long double typed,
                          std::span<const std::uint8_t> bytes, value::NumberStyle style) {
    const std::string shown = value::valueText(bytes.data(), object.coding, object.conversion, style);
    const long double raw = value::decodeExact(bytes.data(), object.coding);
    long double held = object.conversion.toPhysicalExact(raw);
    long double step = object.conversion.displayStep(static_cast<double>(typed));
    if (style == value::NumberStyle::exact) {
        step = 0;
        // The digits of a float behind those that it needs are not shown.
        if (value::isFloat(object.coding.dataType))
            held = parseDouble(shown).value_or(static_cast<double>(held));
    }
    if (std::fabs(held - typed) <= step / 2 + rounding(object, typed)) return "";
    return std::string(text) + " is not possible, " +
           (isNearest(object, raw, typed) ? "the nearest value is " : "the ECU now holds ") + shown;
}

}  // namespace lm::a2l
