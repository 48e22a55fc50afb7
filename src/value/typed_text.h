// What a user types for a value, and what is told when the object cannot hold it as typed.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "core/result.h"
#include "value/value_text.h"

namespace lm::value {

/// What a user typed as a physical value: a verbal text of the element, or a number that uses up the whole
/// text, decimal or 0x. Errors (invalidArgument): "NAME: 'TEXT' is not a number", "NAME: 'TEXT' is not a
/// valid value".
Result<Value> parseText(const Element& element, std::string_view text);

/// What a user is told when the number `typed` was written and the bytes now mean another one, by more than
/// half a step of what is displayed: "0.85 is not possible, the nearest value is 0.900"; empty when they do
/// not.
std::string deviationText(const Element& element, std::string_view text, const Value& typed,
                          std::span<const std::uint8_t> bytes, NumberStyle style);

}  // namespace lm::value
