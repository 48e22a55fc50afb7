// A value on its way from the bytes to the display: raw as it lies in the ECU, or physical.
//
// Threads: a plain value. Lifetime: owns its text.
#pragma once

#include <string>
#include <variant>

#include "value/exact.h"

namespace lm::value {

/// A number as a double has it; a number that came of an integer of 64 bits without rounding; the text of a
/// verbal conversion.
using Value = std::variant<double, Exact, std::string>;

/// The nearest double; 0 for a text.
inline double toDouble(const Value& value) {
    if (const auto* exact = std::get_if<Exact>(&value)) return exact->toDouble();
    const auto* number = std::get_if<double>(&value);
    return number != nullptr ? *number : 0;
}

}  // namespace lm::value
