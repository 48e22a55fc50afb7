#include "params/file_number.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>

#include "core/text.h"

namespace lm::params {
namespace {

using value::Exact;
using value::Int128;
using value::Value;

/// What becomes of integers of 64 bits lies within.
constexpr int kLeastExponent = -64;
constexpr int kMostExponent = 56;
constexpr double kMostExact = 0x1p120;

/// The digits from the first that is not 0 to the last, of a number without an exponent.
std::string significantDigits(std::string_view number) {
    std::string digits;
    for (const char c : number) {
        if (isDigit(c) && (c != '0' || !digits.empty())) digits += c;
    }
    return digits.erase(digits.find_last_not_of('0') + 1);
}

Exact withoutTrailingZeros(Exact number) {
    while (number.units != 0 && number.units % 2 == 0) {
        number.units /= 2;
        ++number.exponent;
    }
    return number;
}

bool fitsDouble(const Exact& number) {
    constexpr Int128 kMost = Int128{1} << 53U;
    return number.units <= kMost && number.units >= -kMost;
}

Value parsedDecimal(std::string_view text, double rounded) {
    constexpr std::size_t kDigitsOfAnyDouble = 15;
    if (text.size() <= kDigitsOfAnyDouble) return rounded;
    // Shortest texts of doubles have an exponent before they would round whole digits away.
    if (text.find_first_of("eE") != std::string_view::npos) return rounded;
    const std::string digits = significantDigits(text);
    // The last digit of a multiple of 1/2, 1/4, ... is a 5.
    const bool isFraction = text.find('.') != std::string_view::npos;
    if (isFraction && !digits.ends_with('5')) return rounded;
    const auto typed = Exact::parse(text);
    if (!typed) return rounded;
    const Exact exact = withoutTrailingZeros(*typed);
    if (fitsDouble(exact) || exact.exponent < kLeastExponent || exact.exponent > kMostExponent)
        return rounded;
    // 0.1 with many digits is no multiple of a power of two; there a double is as good.
    return significantDigits(exact.shortest()) == digits ? Value(exact) : Value(rounded);
}

std::optional<Value> parsedBits(std::string_view digits, int base, bool negative) {
    std::uint64_t bits = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, failure] = std::from_chars(digits.data(), end, bits, base);
    if (failure != std::errc() || stop != end) return std::nullopt;
    const Exact exact = withoutTrailingZeros({negative ? -Int128{bits} : Int128{bits}, 0});
    return fitsDouble(exact) ? Value(exact.toDouble()) : Value(exact);
}

bool startsWithBase(std::string_view text, char small, char capital) {
    return text.size() > 2 && text[0] == '0' && (text[1] == small || text[1] == capital);
}

}  // namespace

std::optional<Value> parseNumber(std::string_view text) {
    std::string_view digits = text;
    const bool negative = digits.starts_with('-');
    if (negative || digits.starts_with('+')) digits.remove_prefix(1);
    if (startsWithBase(digits, 'x', 'X')) return parsedBits(digits.substr(2), 16, negative);
    if (startsWithBase(digits, 'b', 'B')) return parsedBits(digits.substr(2), 2, negative);
    const auto rounded = parseDouble(text);
    if (!rounded) return std::nullopt;
    if (std::isfinite(*rounded)) return parsedDecimal(text, *rounded);
    const bool isTooLarge = std::any_of(digits.begin(), digits.end(), isDigit);
    return isTooLarge ? std::nullopt : std::optional<Value>(*rounded);
}

std::optional<std::string> numberText(const Value& value) {
    if (!isFiniteNumber(value)) return std::nullopt;
    if (const auto* exact = std::get_if<Exact>(&value)) {
        const Exact held = withoutTrailingZeros(*exact);
        if (fitsDouble(held) || held.exponent < kLeastExponent || std::fabs(held.toDouble()) >= kMostExact)
            return formatShortest(held.toDouble());
        return held.shortest();
    }
    return formatShortest(value::toDouble(value));
}

bool isFiniteNumber(const Value& value) {
    return !std::holds_alternative<std::string>(value) && std::isfinite(value::toDouble(value));
}

}  // namespace lm::params
