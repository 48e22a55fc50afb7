#include "serve/window_frame.h"

#include <algorithm>
#include <limits>

#include "serve/little_bytes.h"

namespace lm::serve {
float nearestFloat(double value) {
    constexpr double kMost = std::numeric_limits<float>::max();
    if (std::isnan(value)) return std::numeric_limits<float>::quiet_NaN();
    if (std::fabs(value) > kMost)
        return std::copysign(std::numeric_limits<float>::infinity(), value > 0 ? 1.0F : -1.0F);
    return static_cast<float>(value);
}

float floatBelow(double value) {
    const float nearest = nearestFloat(value);
    return nearest > value ? std::nextafter(nearest, -std::numeric_limits<float>::infinity()) : nearest;
}

float floatAbove(double value) {
    const float nearest = nearestFloat(value);
    return nearest < value ? std::nextafter(nearest, std::numeric_limits<float>::infinity()) : nearest;
}

std::string windowFrame(std::int64_t fromNs, std::int64_t toNs, std::uint64_t records,
                        std::span<const Extremes> signals) {
    constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
    std::string bytes;
    bytes.reserve(24 + 16 * signals.size());
    appendDouble(bytes, static_cast<double>(fromNs));
    appendDouble(bytes, static_cast<double>(toNs));
    appendLittle(bytes, static_cast<std::uint32_t>(std::min<std::uint64_t>(records, UINT32_MAX)));
    appendLittle(bytes, static_cast<std::uint32_t>(signals.size()));
    for (const Extremes& one : signals)
        appendDouble(bytes, one.count == 0 ? kNone : one.last);
    for (const Extremes& one : signals)
        appendFloat(bytes, floatBelow(one.count == 0 ? kNone : one.least));
    for (const Extremes& one : signals)
        appendFloat(bytes, floatAbove(one.count == 0 ? kNone : one.greatest));
    return bytes;
}

}  // namespace lm::serve
