#include "session/raw_steps.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <utility>

namespace lm::session {
namespace {

using value::Element;
using value::Value;

constexpr double kHalfStep = 0.5 + 1e-9;  // and what rounding makes of it

std::optional<double> rawOf(const Element& element, const Value& physical) {
    if (const auto* const text = std::get_if<std::string>(&physical)) return rawOfText(element, *text);
    const auto raw = element.conversion->toRaw(value::toDouble(physical));
    return raw && std::isfinite(raw.value()) ? std::optional(raw.value()) : std::nullopt;
}

/// Where a double would not tell neighbours apart.
std::optional<value::Int128> wideRawOf(const Element& element, const Value& physical) {
    const auto* const exact = std::get_if<value::Exact>(&physical);
    if (exact != nullptr) return element.conversion->exactLine()->raw(*exact);
    const auto raw = rawOf(element, physical);
    if (!raw || std::fabs(*raw) >= 0x1p53) return std::nullopt;
    return static_cast<value::Int128>(std::llround(*raw));
}

bool isSameFloat(const Element& element, double a, double b) {
    std::array<std::uint8_t, sizeof(double)> bytesA{};
    std::array<std::uint8_t, sizeof(double)> bytesB{};
    return value::encodeRaw(a, element.coding, bytesA) && value::encodeRaw(b, element.coding, bytesB) &&
           bytesA == bytesB;
}

}  // namespace

std::optional<double> rawOfText(const Element& element, std::string_view text) {
    const auto raw = element.conversion->rawFromText(text);
    if (raw) return std::isfinite(raw.value()) ? std::optional(raw.value()) : std::nullopt;
    const auto* const table = std::get_if<value::Conversion::VerbalTable>(&element.conversion->kind());
    const bool isTrue = text == "true";
    if (table == nullptr || table->ranges.size() != 2 || (!isTrue && text != "false")) return std::nullopt;
    const auto isFor = [](const auto& range, double value) {
        return range.lower == value && range.upper == value;
    };
    const auto& ranges = table->ranges;
    const bool areBits =
        (isFor(ranges[0], 0) && isFor(ranges[1], 1)) || (isFor(ranges[0], 1) && isFor(ranges[1], 0));
    return areBits ? std::optional(isTrue ? 1.0 : 0.0) : std::nullopt;
}

bool RawSteps::within(const params::Parameter& parameter, std::optional<std::size_t> axis, const Value& a,
                      const Value& b) {
    if (parameter.shape == params::Shape::text) return false;
    const Element* const element = elementOf(parameter.name, axis);
    if (element == nullptr) return false;
    if (element->keepsIntegers() &&
        (std::holds_alternative<value::Exact>(a) || std::holds_alternative<value::Exact>(b))) {
        const auto rawA = wideRawOf(*element, a);
        const auto rawB = wideRawOf(*element, b);
        return rawA && rawB && *rawA == *rawB;
    }
    const auto rawA = rawOf(*element, a);
    const auto rawB = rawOf(*element, b);
    if (!rawA || !rawB) return false;
    if (value::isFloat(element->coding.dataType)) return isSameFloat(*element, *rawA, *rawB);
    return std::fabs(*rawA - *rawB) <= kHalfStep;
}

const Element* RawSteps::elementOf(const std::string& name, std::optional<std::size_t> axis) {
    if (name != name_) {
        name_ = name;
        auto found = a2l::findObject(description_, name);
        object_ = found ? std::optional(std::move(found).value()) : std::nullopt;
    }
    if (!object_) return nullptr;
    if (!axis) return &object_->first;
    return *axis < object_->axes.size() ? &object_->axes[*axis].point : nullptr;
}

}  // namespace lm::session
