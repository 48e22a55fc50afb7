// Numbers of parameter files: what is read is what was written, to the last bit.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "value/value.h"

namespace lm::params {

/// A decimal number, with an exponent or without, hexadecimal (0x) or binary (0b) up to 64 bits, NaN or INF,
/// all with an optional sign. An exact number where a double would lose some of its digits. None for what is
/// no number and for a decimal number too large for a double.
std::optional<value::Value> parseNumber(std::string_view text);

/// The shortest text that parseNumber() reads back as the same number; none for NaN, infinities and texts.
std::optional<std::string> numberText(const value::Value& value);

bool isFiniteNumber(const value::Value& value);

}  // namespace lm::params
