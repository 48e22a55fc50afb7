#include "exporter/number_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace lm::exporter {
namespace {

char* writeUnsigned(char* to, std::uint64_t value) {
    return std::to_chars(to, to + kNumberWidth, value).ptr;
}

/// ".25" for a fraction of 250 with 3 decimals, nothing for 0.
char* writeFraction(char* to, std::uint64_t fraction, unsigned decimals) {
    if (fraction == 0) return to;
    for (; fraction % 10 == 0; --decimals)
        fraction /= 10;
    *to = '.';
    for (unsigned i = decimals; i > 0; --i, fraction /= 10)
        to[i] = static_cast<char>('0' + fraction % 10);
    return to + 1 + decimals;
}

/// Whether a number of millionths is not shorter with an exponent.
bool isShortestFixed(std::uint64_t millionths) {
    return millionths >= 1000 && millionths % 100000000000 != 0;
}

}  // namespace

char* writeShortest(char* to, double value) {
    if (std::isnan(value)) {
        return std::copy_n("nan", 3, to);
    }
    const double magnitude = std::fabs(value);
    if (magnitude < 1e9) {
        // Most measured values have few decimals. Two whole numbers that a double holds exactly have a
        // correctly rounded quotient, so when it equals the value, these decimals read back as the value;
        // with 15 digits at most, no other text so short does.
        const auto millionths = static_cast<std::uint64_t>(std::llround(magnitude * 1e6));
        if (static_cast<double>(millionths) / 1e6 == magnitude && isShortestFixed(millionths)) {
            if (value < 0) *to++ = '-';
            return writeFraction(writeUnsigned(to, millionths / 1000000), millionths % 1000000, 6);
        }
    }
    return std::to_chars(to, to + kNumberWidth, value).ptr;
}

char* writeSeconds(char* to, std::int64_t nanoseconds) {
    auto magnitude = static_cast<std::uint64_t>(nanoseconds);
    if (nanoseconds < 0) {
        *to++ = '-';
        magnitude = 0 - magnitude;
    }
    return writeFraction(writeUnsigned(to, magnitude / 1000000000), magnitude % 1000000000, 9);
}

}  // namespace lm::exporter
