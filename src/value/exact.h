// Numbers without rounding: what a conversion makes of an integer of 64 bits, of which a double holds 53.
//
// Threads: plain values and pure functions. Lifetime: results own their text.
#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace lm::value {

__extension__ using Int128 = __int128;

/// units * 2^exponent.
struct Exact {
    Int128 units = 0;
    int exponent = 0;  ///< -64 to 56 but for numbers that were typed

    /// A number that a user typed, decimal or hexadecimal (0x) with an optional sign, to 120 bits. None for
    /// what is no number, and for one that is not finite or so large that only a double holds it.
    static std::optional<Exact> parse(std::string_view text);

    /// The nearest one.
    double toDouble() const;
    /// As lm::formatFixed() of a double.
    std::string fixed(int decimals) const;
    /// All its digits; of a fraction of up to 53 bits, the shortest text of the double.
    std::string shortest() const;

    friend Exact operator-(Exact a, Exact b);
    friend std::strong_ordering operator<=>(const Exact& a, const Exact& b) { return (a - b).units <=> 0; }
};

/// physical = (factor * raw + offset) * 2^exponent, without rounding.
struct ExactLine {
    Int128 factor = 1;  ///< not 0, below 2^56
    Int128 offset = 0;  ///< below 2^100
    int exponent = 0;

    /// a * raw + b where a is whole or a power of two, positive or not, and b fits with it. Every other a is
    /// left to doubles.
    static std::optional<ExactLine> make(double a, double b);

    bool isPowerOfTwo() const { return factor == 1 && offset == 0; }
    Exact physical(Int128 raw) const { return {factor * raw + offset, exponent}; }
    /// The nearest raw value, of halves the one farther from 0; none far beyond 64 bits.
    std::optional<Int128> raw(const Exact& physical) const;
};

/// A number over 2^bits, rounded to the nearest, halves away from 0.
Int128 shiftedDown(Int128 number, int bits);

}  // namespace lm::value
