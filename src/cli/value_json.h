// Values as JSON (docs/json.md).
//
// Threads: pure functions. Lifetime: `bytes` hold at least the element's size.
#pragma once

#include <cstdint>
#include <string_view>

#include "cli/json_writer.h"
#include "value/element.h"

namespace lm::cli {

/// A raw value, and what is physical of it: integers stay integers where the conversion changes nothing.
void writeRaw(JsonWriter& json, const value::Element& element, const value::Value& raw);
void writePhysical(JsonWriter& json, const value::Element& element, const value::Value& raw);

/// The members "raw" and "physical" of bytes: integers stay integers where the conversion changes nothing.
void writeNumbers(JsonWriter& json, const value::Element& element, const std::uint8_t* bytes);

/// The whole object.
void writeValue(JsonWriter& json, const value::Element& element, const std::uint8_t* bytes,
                std::string_view text);

}  // namespace lm::cli
