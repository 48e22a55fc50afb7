#include "value/value_text.h"

#include <cmath>
#include <utility>

#include "core/text.h"

namespace lm::value {
namespace {

std::string exactText(double physical, const Element& element) {
    constexpr double kMostDigits = 0x1p64;
    if (isFloat(element.coding.dataType)) {
        // A value that is only scaled is as short as its type allows.
        return element.conversion->isBinaryScale() ? shortestFloat(physical, element.coding.dataType)
                                                   : formatShortest(physical);
    }
    const bool whole = std::fabs(physical) < kMostDigits && std::trunc(physical) == physical;
    return whole ? formatFixed(physical, 0) : formatShortest(physical);
}

}  // namespace

std::string valueText(const Element& element, Value physical, NumberStyle style) {
    if (auto* text = std::get_if<std::string>(&physical)) return std::move(*text);
    if (style == NumberStyle::formatted) return element.conversion->formatPhysical(physical);
    if (const auto* exact = std::get_if<Exact>(&physical)) return exact->shortest();
    return exactText(std::get<double>(physical), element);
}

std::string valueText(const Element& element, const std::uint8_t* bytes, NumberStyle style) {
    return valueText(element, physicalValue(element, rawValue(element, bytes)), style);
}

}  // namespace lm::value
