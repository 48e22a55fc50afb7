#include "value/element.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "core/text.h"

namespace lm::value {
namespace {

constexpr std::size_t kLongestLimitMessage = 159;

Error fault(const Element& element, const std::string& what) {
    return {ErrorCode::invalidArgument, element.name + ": " + what};
}

bool isWithin(double physical, double lower, double upper) {
    double tolerance = 1;
    for (const double limit : {lower, upper})
        if (std::isfinite(limit)) tolerance = std::max(tolerance, std::fabs(limit));
    tolerance *= 1e-9;
    const bool aboveLower = std::isfinite(lower) ? physical >= lower - tolerance : !std::isnan(physical);
    const bool belowUpper = std::isfinite(upper) ? physical <= upper + tolerance : !std::isnan(physical);
    return aboveLower && belowUpper;
}

bool isWithinExtended(const Element& element, double physical) {
    const auto& wider = element.extendedLimits;
    return wider && isWithin(physical, wider->first, wider->second);
}

Result<void> checkLimits(const Element& element, double physical) {
    if (std::isinf(physical)) return fault(element, "value is not finite");
    if (isWithin(physical, element.lowerLimit, element.upperLimit)) return {};
    const bool may = isWithinExtended(element, physical);
    if (may && element.takesExtended) return {};
    const bool wide = element.takesExtended && element.extendedLimits;
    const auto [lower, upper] =
        wide ? *element.extendedLimits : std::pair(element.lowerLimit, element.upperLimit);
    Error error = fault(element, formatGeneral(physical) + " outside the limits [" + formatGeneral(lower) +
                                     ", " + formatGeneral(upper) + "]");
    if (error.message.size() > kLongestLimitMessage) error.message.resize(kLongestLimitMessage);
    if (may) {
        error.hint = element.name + ": the extended limits are [" +
                     formatGeneral(element.extendedLimits->first) + ", " +
                     formatGeneral(element.extendedLimits->second) + "], `set --extended-limits` goes so far";
    }
    return error;
}

Result<void> encodeWithinLimits(const Element& element, const Value& physical,
                                std::span<std::uint8_t> buffer) {
    if (const auto* exact = std::get_if<Exact>(&physical); exact != nullptr && element.keepsIntegers()) {
        if (const auto raw = element.conversion->exactLine()->raw(*exact))
            return encodeInteger(*raw, element.coding, buffer);
    }
    const Result<double> raw = element.conversion->toRaw(toDouble(physical));
    if (!raw) return raw.error();
    // Beyond its type's range a float would silently become infinite, and an inverse formula may yield NaN.
    if (auto finite = requireFinite(raw.value(), element.coding.dataType); !finite) return finite;
    return encodeRaw(raw.value(), element.coding, buffer);
}

}  // namespace

Value rawValue(const Element& element, const std::uint8_t* bytes) {
    if (!element.keepsIntegers()) return decodeRaw(bytes, element.coding);
    return exactInteger(decodeInteger(bytes, element.coding), element.coding);
}

Value wholeRaw(const Element& element, const std::uint8_t* bytes) {
    if (isFloat(element.coding.dataType)) return decodeRaw(bytes, element.coding);
    return exactInteger(decodeInteger(bytes, element.coding), element.coding);
}

Value physicalValue(const Element& element, const Value& raw) {
    if (const auto text = element.conversion->verbalText(toDouble(raw))) return std::string(*text);
    return element.conversion->toPhysical(raw);
}

bool isBeyondLimits(const Element& element, const Value& physical) {
    const auto* text = std::get_if<std::string>(&physical);
    const Result<double> number =
        text != nullptr ? element.conversion->rawFromText(*text) : Result<double>(toDouble(physical));
    return number && !isWithin(number.value(), element.lowerLimit, element.upperLimit);
}

Result<void> encodePhysical(const Element& element, const Value& physical, std::span<std::uint8_t> buffer) {
    if (const auto* text = std::get_if<std::string>(&physical)) {
        const Result<double> raw = element.conversion->rawFromText(*text);
        return raw ? encodePhysical(element, raw.value(), buffer) : fault(element, raw.error().message);
    }
    if (auto checked = checkLimits(element, toDouble(physical)); !checked) return checked;
    auto encoded = encodeWithinLimits(element, physical, buffer);
    if (encoded) return encoded;
    Error error = encoded.error();
    error.message = element.name + ": " + error.text();
    return error;
}

}  // namespace lm::value
