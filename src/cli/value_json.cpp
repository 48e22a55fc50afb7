#include "cli/value_json.h"

namespace lm::cli {

void writeNumbers(JsonWriter& json, const value::Element& element, const std::uint8_t* bytes) {
    if (value::isFloat(element.coding.dataType)) {
        const double raw = value::decodeRaw(bytes, element.coding);
        json.member("raw", raw);
        return json.member("physical", element.conversion->toPhysical(raw));
    }
    const std::uint64_t raw = value::decodeInteger(bytes, element.coding);
    const auto writeRaw = [&](std::string_view key) {
        value::hasSign(element.coding) ? json.member(key, static_cast<std::int64_t>(raw))
                                       : json.member(key, raw);
    };
    writeRaw("raw");
    const auto& line = element.conversion->exactLine();
    if (line && line->isPowerOfTwo() && line->exponent == 0) return writeRaw("physical");
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
