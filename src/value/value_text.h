// What is shown for a value.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <cstdint>
#include <string>

#include "value/element.h"

namespace lm::value {

enum class NumberStyle : std::uint8_t {
    formatted,  ///< as the display format asks
    exact,      ///< integers with all digits, others with the shortest text that reads back
};

/// What is shown for a physical value.
std::string valueText(const Element& element, Value physical, NumberStyle style);

/// The same for the element's bytes.
std::string valueText(const Element& element, const std::uint8_t* bytes, NumberStyle style);

}  // namespace lm::value
