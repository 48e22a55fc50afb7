#include "core/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

namespace lm {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void appendUtf8(std::string& out, char32_t c) {
    const auto byte = [&out](char32_t bits) { out.push_back(static_cast<char>(bits)); };
    if (c < 0x80) {
        byte(c);
    } else if (c < 0x800) {
        byte(0xC0 | (c >> 6U));
        byte(0x80 | (c & 0x3FU));
    } else if (c < 0x10000) {
        byte(0xE0 | (c >> 12U));
        byte(0x80 | ((c >> 6U) & 0x3FU));
        byte(0x80 | (c & 0x3FU));
    } else {
        byte(0xF0 | (c >> 18U));
        byte(0x80 | ((c >> 12U) & 0x3FU));
        byte(0x80 | ((c >> 6U) & 0x3FU));
        byte(0x80 | (c & 0x3FU));
    }
}

// Length of the well-formed sequence at the start of `text`, 0 when it is malformed (Unicode table 3-7).
std::size_t utf8SequenceLength(std::string_view text) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto continues = [&](std::size_t i, unsigned low = 0x80, unsigned high = 0xBF) {
        return i < text.size() && at(i) >= low && at(i) <= high;
    };
    const unsigned lead = at(0);
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return continues(1) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        const unsigned low = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned high = lead == 0xED ? 0x9F : 0xBF;
        return continues(1, low, high) && continues(2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const unsigned low = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned high = lead == 0xF4 ? 0x8F : 0xBF;
        return continues(1, low, high) && continues(2) && continues(3) ? 4 : 0;
    }
    return 0;
}

constexpr std::array<char, 256> kLower = [] {
    std::array<char, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = static_cast<char>(i >= 'A' && i <= 'Z' ? i + ('a' - 'A') : i);
    }
    return table;
}();

}  // namespace

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const std::size_t first = std::min(text.find_first_not_of(kBlanks), text.size());
    text.remove_prefix(first);
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

void lowerAsciiInto(std::string& lowered, std::string_view text) {
    lowered.resize(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
        lowered[i] = kLower[static_cast<unsigned char>(text[i])];
}

bool isValidUtf8(std::string_view text) {
    std::size_t at = 0;
    while (at < text.size()) {
        // Eight ASCII bytes at a time: descriptions are nearly all ASCII and can be hundreds of megabytes.
        while (at + sizeof(std::uint64_t) <= text.size()) {
            std::uint64_t block = 0;
            text.copy(reinterpret_cast<char*>(&block), sizeof(block), at);
            if ((block & 0x8080808080808080U) != 0) break;
            at += sizeof(block);
        }
        if (at == text.size()) break;
        const std::size_t length = utf8SequenceLength(text.substr(at));
        if (length == 0) return false;
        at += length;
    }
    return true;
}

std::string windows1252ToUtf8(std::string_view bytes) {
    static constexpr std::array<char32_t, 32> kHigh = {
        0x20AC,       kReplacement, 0x201A, 0x0192, 0x201E, 0x2026,       0x2020, 0x2021,
        0x02C6,       0x2030,       0x0160, 0x2039, 0x0152, kReplacement, 0x017D, kReplacement,
        kReplacement, 0x2018,       0x2019, 0x201C, 0x201D, 0x2022,       0x2013, 0x2014,
        0x02DC,       0x2122,       0x0161, 0x203A, 0x0153, kReplacement, 0x017E, 0x0178};
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 8);
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        appendUtf8(out, byte >= 0x80 && byte < 0xA0 ? kHigh[byte - 0x80U] : byte);
    }
    return out;
}

std::string utf16ToUtf8(std::string_view bytes, bool bigEndian) {
    const auto unit = [&](std::size_t i) {
        const auto first = static_cast<unsigned char>(bytes[i]);
        const auto second = static_cast<unsigned char>(bytes[i + 1]);
        return static_cast<char32_t>(bigEndian ? first << 8U | second : second << 8U | first);
    };
    std::string out;
    out.reserve(bytes.size());
    std::size_t i = 0;
    for (; i + 1 < bytes.size(); i += 2) {
        const char32_t c = unit(i);
        if (c < 0xD800 || c > 0xDFFF) {
            appendUtf8(out, c);
            continue;
        }
        const char32_t next = c < 0xDC00 && i + 3 < bytes.size() ? unit(i + 2) : 0;
        if (next >= 0xDC00 && next <= 0xDFFF) {
            appendUtf8(out, 0x10000 + ((c - 0xD800) << 10U) + (next - 0xDC00));
            i += 2;
        } else {
            appendUtf8(out, kReplacement);
        }
    }
    if (i < bytes.size()) appendUtf8(out, kReplacement);
    return out;
}

Result<std::uint64_t> parseUnsigned(std::string_view text, NumberBase base, std::uint64_t maximum) {
    std::string_view digits = text;
    int radix = 10;
    if (base == NumberBase::automatic && digits.size() > 1 && digits[0] == '0') {
        const bool hexadecimal = digits[1] == 'x' || digits[1] == 'X';
        radix = hexadecimal ? 16 : 8;
        digits.remove_prefix(hexadecimal ? 2 : 1);
    }
    std::uint64_t value = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, failure] = std::from_chars(digits.data(), end, value, radix);
    if (failure != std::errc() || stop != end || value > maximum) {
        return Error{
            ErrorCode::invalidArgument,
            "stoul: '" + std::string(text) + "' is not a number from 0 to " + std::to_string(maximum)};
    }
    return value;
}

namespace {

/// The decimal exponent of the first digit that is not 0: positive or 0 for a number of at least 1. `number`
/// is a decimal number that is not 0, with an optional sign.
std::int64_t decimalMagnitude(std::string_view number) {
    constexpr std::int64_t kFar = std::int64_t{1} << 40U;
    const auto exponentAt = std::min(number.find_first_of("eE"), number.size());
    const std::string_view mantissa = number.substr(0, exponentAt);
    const auto first = static_cast<std::int64_t>(mantissa.find_first_of("123456789"));
    const auto point = static_cast<std::int64_t>(std::min(mantissa.find('.'), mantissa.size()));
    std::int64_t exponent = 0;
    if (exponentAt < number.size()) {
        std::string_view digits = number.substr(exponentAt + 1);
        if (digits.starts_with('+')) digits.remove_prefix(1);
        const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), exponent);
        if (read.ec == std::errc::result_out_of_range) exponent = digits.starts_with('-') ? -kFar : kFar;
    }
    return std::clamp(exponent, -kFar, kFar) + (first < point ? point - 1 - first : point - first);
}

}  // namespace

std::optional<double> parseDouble(std::string_view text) {
    std::string_view number = text;
    // from_chars takes no leading plus; "+-1" must not pass for -1.
    if (number.size() > 1 && number[0] == '+' && number[1] != '-') number.remove_prefix(1);
    double value = 0;
    const char* end = number.data() + number.size();
    const auto [stop, failure] = std::from_chars(number.data(), end, value);
    if (stop != end || failure == std::errc::invalid_argument) return std::nullopt;
    if (failure == std::errc::result_out_of_range) {
        // The conversion does not tell overflow from underflow.
        const double magnitude = decimalMagnitude(number) < 0 ? 0 : std::numeric_limits<double>::infinity();
        return number[0] == '-' ? -magnitude : magnitude;
    }
    return value;
}

namespace {

template <typename Float>
std::string withoutNanSign(std::string text, Float value) {
    if (std::isnan(value) && !text.empty() && text[0] == '-') text.erase(0, 1);
    return text;
}

template <typename Float, typename... How>
std::string formatted(Float value, How... how) {
    // A double has at most 309 digits before the point.
    std::array<char, 512> buffer{};
    const auto [end, failure] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, how...);
    if (failure != std::errc()) return "?";
    return withoutNanSign(std::string(buffer.data(), end), value);
}

}  // namespace

std::string formatFixed(double value, int decimals) {
    return formatted(value, std::chars_format::fixed, std::min(decimals, 128));
}

std::string formatGeneral(double value) {
    return formatted(value, std::chars_format::general, 6);
}

std::string formatSize(std::uint64_t bytes) {
    constexpr std::array<const char*, 4> kUnits = {" kB", " MB", " GB", " TB"};
    if (bytes < 1000) return std::to_string(bytes) + " bytes";
    auto size = static_cast<double>(bytes) / 1000;
    std::size_t unit = 0;
    for (; size >= 1000 && unit + 1 < kUnits.size(); ++unit)
        size /= 1000;
    return formatFixed(size, 1) + kUnits[unit];
}

std::string formatShortest(float value) {
    return formatted(value);
}

std::string formatShortest(double value) {
    return formatted(value);
}

}  // namespace lm
