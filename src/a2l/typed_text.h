// What a user types for a value, and what is told when the object cannot hold it as typed.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "a2l/object.h"
#include "core/result.h"
#include "value/value_text.h"

namespace lm::a2l {

/// The text that a user typed (a verbal text or a number that uses up the whole text, decimal or 0x) into
/// bytes; a number is rounded to what the object can hold. Gives the number, none for a verbal text. Errors:
/// those of encodePhysical(), "NAME: 'TEXT' is not a number", "NAME: 'TEXT' is not a valid value".
Result<std::optional<long double>> encodeText(const ResolvedObject& object, std::string_view text,
                                              std::span<std::uint8_t> buffer);

/// What a user is told when `typed` was written and the bytes now mean another number, by more than half a
/// step of what is displayed: "0.85 is not possible, the nearest value is 0.900"; empty when they do not.
std::string deviationText(const ResolvedObject& object, std::string_view text, long double typed,
                          std::span<const std::uint8_t> bytes, value::NumberStyle style);

}  // namespace lm::a2l
