#include "value/exact.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>

#include "core/text.h"

namespace lm::value {
namespace {

__extension__ using Unsigned128 = unsigned __int128;

/// Bits of the numbers that are calculated with: some room is left to add two of them.
constexpr int kMostBits = 124;

Unsigned128 magnitudeOf(Int128 number) {
    return number < 0 ? Unsigned128{0} - static_cast<Unsigned128>(number) : static_cast<Unsigned128>(number);
}

Int128 withSign(Unsigned128 magnitude, bool negative) {
    return negative ? -static_cast<Int128>(magnitude) : static_cast<Int128>(magnitude);
}

int bitWidth(Unsigned128 number) {
    const auto high = static_cast<std::uint64_t>(number >> 64U);
    return static_cast<int>(high != 0 ? 64 + std::bit_width(high)
                                      : std::bit_width(static_cast<std::uint64_t>(number)));
}

std::string decimalDigits(Unsigned128 number) {
    constexpr std::size_t kChunkDigits = 19;
    constexpr std::uint64_t kChunk = 10'000'000'000'000'000'000U;
    std::string low = std::to_string(static_cast<std::uint64_t>(number % kChunk));
    if (number < kChunk) return low;
    return decimalDigits(number / kChunk) + std::string(kChunkDigits - low.size(), '0') + low;
}

/// The text without its point is one greater in its last digit.
void countUp(std::string& text) {
    for (auto digit = text.rbegin(); digit != text.rend(); ++digit) {
        if (*digit == '.') continue;
        if (++*digit <= '9') return;
        *digit = '0';
    }
    text.insert(text.begin(), '1');
}

/// Whole and fractional digits, so many of the latter or (none given) all of them.
std::string formatted(const Exact& number, std::optional<int> decimals) {
    const Unsigned128 magnitude = magnitudeOf(number.units);
    const int below = std::max(-number.exponent, 0);  // bits behind the point
    const Unsigned128 whole = number.exponent > 0 ? magnitude << number.exponent : magnitude >> below;
    const Unsigned128 one = Unsigned128{1} << below;
    Unsigned128 rest = magnitude & (one - 1);
    std::string text = decimalDigits(whole);
    if (decimals ? *decimals > 0 : rest != 0) text += '.';
    for (int i = 0; decimals ? i < *decimals : rest != 0; ++i) {
        rest *= 10;
        text += static_cast<char>('0' + static_cast<int>(rest >> below));
        rest &= one - 1;
    }
    const bool isOdd = text.back() % 2 != 0;
    if (2 * rest > one || (2 * rest == one && isOdd)) countUp(text);
    return number.units < 0 ? "-" + text : text;
}

std::optional<Exact> parseHexadecimal(std::string_view digits) {
    if (digits.empty()) return std::nullopt;
    Unsigned128 number = 0;
    int exponent = 0;
    for (const char c : digits) {
        const auto digit = hexDigit(c);
        if (!digit) return std::nullopt;
        const bool hasRoom = bitWidth(number) <= kMostBits - 4;
        if (hasRoom) number = number << 4U | *digit;
        if (!hasRoom) exponent += 4;
    }
    return Exact{static_cast<Int128>(number), exponent};
}

/// A number without a sign that is known to be a decimal one and to be within the range of a double.
std::optional<Exact> parseDecimal(std::string_view text) {
    const std::size_t exponentAt = std::min(text.find_first_of("eE"), text.size());
    std::string_view power = text.substr(std::min(exponentAt + 1, text.size()));
    if (power.starts_with('+')) power.remove_prefix(1);
    std::int64_t tens = 0;
    std::from_chars(power.data(), power.data() + power.size(), tens);
    Unsigned128 number = 0;
    bool behindPoint = false;
    for (const char c : text.substr(0, exponentAt)) {
        const bool isDigit = c != '.';
        const bool hasRoom = bitWidth(number) <= kMostBits - 4;
        if (isDigit && hasRoom) number = number * 10 + static_cast<unsigned>(c - '0');
        if (isDigit && hasRoom == behindPoint) tens += hasRoom ? -1 : 1;
        behindPoint = behindPoint || !isDigit;
    }
    for (; tens > 0; --tens) {
        if (bitWidth(number) > kMostBits - 4) return std::nullopt;
        number *= 10;
    }
    int exponent = 0;
    for (; tens < 0; ++tens) {
        const int room = kMostBits - bitWidth(number);
        number = ((number << room) + 5) / 10;
        exponent -= room;
    }
    return Exact{static_cast<Int128>(number), exponent};
}

}  // namespace

std::optional<Exact> Exact::parse(std::string_view text) {
    std::string_view rest = text;
    const bool negative = rest.starts_with('-');
    if (negative || rest.starts_with('+')) rest.remove_prefix(1);
    std::optional<Exact> number;
    if (rest.starts_with("0x") || rest.starts_with("0X")) {
        number = parseHexadecimal(rest.substr(2));
    } else if (const auto rounded = parseDouble(text); rounded && std::isfinite(*rounded)) {
        // What a double takes for 0 is so for all.
        number = *rounded == 0 ? Exact() : parseDecimal(rest);
    }
    if (number && negative) number->units = -number->units;
    return number;
}

double Exact::toDouble() const {
    return std::ldexp(static_cast<double>(units), exponent);
}

std::string Exact::fixed(int decimals) const {
    // What is lost lies below the 120th binary place.
    if (exponent < -kMostBits)
        return Exact{shiftedDown(units, -kMostBits - exponent), -kMostBits}.fixed(decimals);
    return formatted(*this, decimals);
}

std::string Exact::shortest() const {
    const Unsigned128 magnitude = magnitudeOf(units);
    // Of the multiples of 2^exponent, a double that holds them all this far is the nearest to its own text.
    const bool isDouble = bitWidth(magnitude) <= std::numeric_limits<double>::digits;
    // The digits of one as small as that are more than anyone could read.
    if (exponent < -kMostBits) return formatShortest(toDouble());
    const bool isFraction = exponent < 0 && (magnitude & ((Unsigned128{1} << -exponent) - 1)) != 0;
    return isDouble && isFraction ? formatShortest(toDouble()) : formatted(*this, std::nullopt);
}

// The greater exponent becomes the smaller one, as far as there is room; what is lost then lies below the
// 120th bit.
Exact operator-(Exact a, Exact b) {
    if (a.units == 0) a.exponent = b.exponent;
    if (b.units == 0) b.exponent = a.exponent;
    Exact& coarse = a.exponent > b.exponent ? a : b;
    Exact& fine = a.exponent > b.exponent ? b : a;
    const int room = std::max(kMostBits - bitWidth(magnitudeOf(coarse.units)), 0);
    const int up = std::min(coarse.exponent - fine.exponent, room);
    coarse.units *= Int128{1} << up;
    coarse.exponent -= up;
    fine.units = shiftedDown(fine.units, coarse.exponent - fine.exponent);
    return {a.units - b.units, coarse.exponent};
}

Int128 shiftedDown(Int128 number, int bits) {
    if (bits == 0) return number;
    if (bits > kMostBits + 1) return 0;
    return withSign(((magnitudeOf(number) >> (bits - 1)) + 1) >> 1U, number < 0);
}

namespace {

/// The exponent of a number's lowest bit; 0 of 0.
std::optional<int> lowestBit(double number) {
    if (!std::isfinite(number)) return std::nullopt;
    int exponent = 0;
    const double fraction = std::frexp(number, &exponent);
    const auto mantissa = static_cast<std::uint64_t>(std::ldexp(std::fabs(fraction), 53));
    return mantissa == 0 ? 0 : exponent - 53 + std::countr_zero(mantissa);
}

}  // namespace

std::optional<ExactLine> ExactLine::make(double a, double b) {
    // Within these bounds a text of any number on the line leads back to it.
    constexpr int kLeast = -64;
    constexpr int kGreatest = 56;
    constexpr double kMostFactor = 0x1p56;
    constexpr double kMostOffset = 0x1p100;
    const auto lowestOfA = lowestBit(a);
    const auto lowestOfB = lowestBit(b);
    if (a == 0 || !lowestOfA || !lowestOfB) return std::nullopt;
    if (*lowestOfA < kLeast || *lowestOfA > kGreatest) return std::nullopt;
    const bool isPowerOfTwo = std::fabs(a) == std::ldexp(1, *lowestOfA);
    const int unit = b == 0 && isPowerOfTwo ? *lowestOfA : std::min(*lowestOfA, 0);
    if ((unit < 0 && !isPowerOfTwo) || *lowestOfB < std::min(unit, 0)) return std::nullopt;
    const double factor = std::ldexp(a, -unit);
    const double offset = std::ldexp(b, -unit);
    if (std::fabs(factor) >= kMostFactor || std::fabs(offset) >= kMostOffset) return std::nullopt;
    return ExactLine{static_cast<Int128>(factor), static_cast<Int128>(offset), unit};
}

std::optional<Int128> ExactLine::raw(const Exact& physical) const {
    const Exact product = physical - Exact{offset, exponent};
    const int up = product.exponent - exponent;
    const Unsigned128 magnitude = magnitudeOf(product.units);
    const Unsigned128 divisor = magnitudeOf(factor);
    const bool negative = (product.units < 0) != (factor < 0);
    // What the division leaves is less than a whole bit, so it does not decide beside the bits shifted out.
    if (up < 0) return shiftedDown(withSign(magnitude / divisor, negative), -up);
    if (magnitude != 0 && bitWidth(magnitude) + up > kMostBits) return std::nullopt;
    return withSign(((magnitude << up) + divisor / 2) / divisor, negative);
}

}  // namespace lm::value
