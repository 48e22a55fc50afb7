#include "a2l/number_word.h"

#include <charconv>
#include <cstddef>
#include <limits>

#include "core/text.h"

namespace lm::a2l {
namespace {

// The digits behind 0x; none when one of them is not hexadecimal.
std::optional<double> hexadecimalValue(std::string_view digits) {
    const auto first = digits.find_first_not_of('0');
    if (first == std::string_view::npos) return 0.0;
    std::uint64_t value = 0;
    for (const char c : digits.substr(first)) {
        const auto digit = hexDigit(c);
        if (!digit) return std::nullopt;
        value = value << 4U | *digit;
    }
    const std::string_view significant = digits.substr(first);
    if (significant.size() <= 2 * sizeof(value)) return static_cast<double>(value);
    double large = std::numeric_limits<double>::infinity();
    std::from_chars(significant.data(), significant.data() + significant.size(), large,
                    std::chars_format::hex);
    return large;
}

}  // namespace

std::optional<double> numberValue(std::string_view word) {
    // Fifteen digits are exact in a double; most numbers of a description are such.
    constexpr std::size_t kExactDigits = 15;
    const char first = word[0];
    const bool hasSign = first == '+' || first == '-';
    const std::string_view rest = hasSign ? word.substr(1) : word;
    if (rest.empty()) return std::nullopt;
    if (!isDigit(rest[0]) && !(rest[0] == '.' && rest.size() > 1 && isDigit(rest[1]))) return std::nullopt;
    if (rest.size() >= 3 && rest[0] == '0' && (rest[1] == 'x' || rest[1] == 'X')) {
        const auto magnitude = hexadecimalValue(rest.substr(2));
        if (magnitude) return first == '-' ? -*magnitude : *magnitude;
    }
    if (rest.size() <= kExactDigits) {
        std::uint64_t value = 0;
        std::size_t i = 0;
        for (; i < rest.size() && isDigit(rest[i]); ++i) {
            value = value * 10 + static_cast<unsigned>(rest[i] - '0');
        }
        const auto magnitude = static_cast<double>(value);
        if (i == rest.size()) return first == '-' ? -magnitude : magnitude;
    }
    return parseDouble(word);
}

std::optional<std::uint64_t> plainUnsigned(std::string_view text) {
    if (text.starts_with('+')) text.remove_prefix(1);
    const bool hexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (hexadecimal) text.remove_prefix(2);
    const char* end = text.data() + text.size();
    const std::uint64_t base = hexadecimal ? 16 : 10;
    std::uint64_t value = 0;
    for (const char* c = text.data(); c != end; ++c) {
        std::uint64_t digit = static_cast<std::uint64_t>(*c - '0');
        if (digit > 9) {
            digit = static_cast<std::uint64_t>((*c | 0x20) - 'a') + 10;
            if (!hexadecimal || digit < 10 || digit > 15) return std::nullopt;
        }
        if (__builtin_mul_overflow(value, base, &value)) return std::nullopt;
        if (__builtin_add_overflow(value, digit, &value)) return std::nullopt;
    }
    if (text.empty()) return std::nullopt;
    return value;
}

}  // namespace lm::a2l
