#include "value/value_text.h"

#include <cmath>

#include "core/text.h"

namespace lm::value {
namespace {

std::string exactText(long double raw, const RawCoding& coding, const Conversion& conversion) {
    if (const auto text = conversion.verbalText(static_cast<double>(raw))) return std::string(*text);
    const long double physical = conversion.toPhysicalExact(raw);
    const auto rounded = static_cast<double>(physical);
    const bool isDouble = static_cast<long double>(rounded) == physical || std::isnan(physical);
    if (!isFloat(coding.dataType)) {
        constexpr long double kMostDigits = 0x1p64L;
        const bool whole = std::fabs(physical) < kMostDigits && std::trunc(physical) == physical;
        if (whole) return formatFixed(physical, 0);
        return isDouble ? formatShortest(rounded) : formatShortest(physical);
    }
    // A value that is only scaled is as short as its type allows.
    return conversion.binaryExponent() ? shortestFloat(rounded, coding.dataType) : formatShortest(rounded);
}

}  // namespace

std::string valueText(const std::uint8_t* bytes, const RawCoding& coding, const Conversion& conversion,
                      NumberStyle style) {
    return valueText(decodeExact(bytes, coding), coding, conversion, style);
}

std::string valueText(long double raw, const RawCoding& coding, const Conversion& conversion,
                      NumberStyle style) {
    return style == NumberStyle::exact ? exactText(raw, coding, conversion) : conversion.format(raw);
}

}  // namespace lm::value
