// Text helpers that do not depend on the locale: encodings of input files and numbers typed by a user.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/result.h"

namespace lm {

/// True when every byte belongs to a well-formed UTF-8 sequence (no surrogates, no overlong forms).
bool isValidUtf8(std::string_view text);

/// Windows-1252 to UTF-8; the five undefined bytes become U+FFFD.
std::string windows1252ToUtf8(std::string_view bytes);

/// UTF-16 without its byte order mark to UTF-8; a lone surrogate or a last odd byte becomes U+FFFD.
std::string utf16ToUtf8(std::string_view bytes, bool bigEndian);

constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

inline constexpr std::string_view kHexDigits = "0123456789ABCDEF";
/// The value of a hexadecimal digit in capital or small letters.
constexpr std::optional<unsigned> hexDigit(char c) {
    if (isDigit(c)) return static_cast<unsigned>(c - '0');
    if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10;
    if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
    return std::nullopt;
}

/// Without the blanks, tabs and line ends at both ends.
std::string_view trimmed(std::string_view text);

/// ASCII letters become small, all other bytes stay; `lowered` keeps its storage for many texts.
void lowerAsciiInto(std::string& lowered, std::string_view text);

/// How the digits of an unsigned number are read.
enum class NumberBase : std::uint8_t {
    decimal,    ///< digits only
    automatic,  ///< 0x hexadecimal, leading 0 octal, else decimal
};

/// The whole text as an unsigned number up to `maximum`. A sign, blanks, characters left over, no digits or
/// an overflow fail with invalidArgument and "stoul: 'TEXT' is not a number from 0 to MAXIMUM".
Result<std::uint64_t> parseUnsigned(std::string_view text, NumberBase base, std::uint64_t maximum);

/// The whole text as a decimal number in fixed or scientific notation, or nan, inf, infinity (any case, with
/// an optional sign); none when a character is left over. A number too large for a double is infinite, one
/// too small is 0, however it is written.
std::optional<double> parseDouble(std::string_view text);

/// printf's "%.*f" (decimals given) or "%g" (none) with a decimal point in every locale and NaN without a
/// sign. The digits are those of the value as it is.
std::string formatFixed(double value, int decimals);
std::string formatGeneral(double value);

/// "999 bytes", "1.2 MB": for people.
std::string formatSize(std::uint64_t bytes);

/// The shortest text that reads back as the same value: of a float, a double.
std::string formatShortest(float value);
std::string formatShortest(double value);

}  // namespace lm
