#include "cli/value_json.h"

#include <cmath>

namespace lm::cli {
namespace {

bool changesNothing(const value::Element& element) {
    const auto& line = element.conversion->exactLine();
    return line && line->isPowerOfTwo() && line->exponent == 0;
}

}  // namespace

void writeRaw(JsonWriter& json, const value::Element& element, const value::Value& raw) {
    const auto* const number = std::get_if<double>(&raw);
    // A point that is computed may lie between two integers of its type.
    const bool isWhole = number != nullptr && std::isfinite(*number) && std::trunc(*number) == *number;
    if (!isWhole || value::isFloat(element.coding.dataType)) return json.value(raw);
    json.value(value::Value(value::Exact{static_cast<value::Int128>(*number)}));
}

void writePhysical(JsonWriter& json, const value::Element& element, const value::Value& raw) {
    if (changesNothing(element)) return writeRaw(json, element, raw);
    json.value(element.conversion->toPhysical(raw));
}

void writeNumbers(JsonWriter& json, const value::Element& element, const std::uint8_t* bytes) {
    if (value::isFloat(element.coding.dataType)) {
        const double raw = value::decodeRaw(bytes, element.coding);
        json.member("raw", raw);
        return json.member("physical", element.conversion->toPhysical(raw));
    }
    const std::uint64_t raw = value::decodeInteger(bytes, element.coding);
    const auto writeInteger = [&](std::string_view key) {
        value::hasSign(element.coding) ? json.member(key, static_cast<std::int64_t>(raw))
                                       : json.member(key, raw);
    };
    writeInteger("raw");
    if (changesNothing(element)) return writeInteger("physical");
    json.member("physical", element.conversion->toPhysical(value::rawValue(element, bytes)));
}

void writeValue(JsonWriter& json, const value::Element& element, const std::uint8_t* bytes,
                std::string_view text) {
    json.beginObject();
    writeNumbers(json, element, bytes);
    json.member("unit", element.conversion->unit());
    json.member("text", text);
    json.endObject();
}

}  // namespace lm::cli
