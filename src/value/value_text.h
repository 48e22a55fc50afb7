// What is shown for a value.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <cstdint>
#include <string>

#include "value/conversion.h"
#include "value/raw_value.h"

namespace lm::value {

enum class NumberStyle : std::uint8_t {
    formatted,  ///< as the display format asks
    exact,      ///< integers with all digits, others with the shortest text that reads back
};

/// What is shown for the bytes of a value: its verbal text, else its physical value.
std::string valueText(const std::uint8_t* bytes, const RawCoding& coding, const Conversion& conversion,
                      NumberStyle style);
/// The same for a raw value of decodeExact().
std::string valueText(long double raw, const RawCoding& coding, const Conversion& conversion,
                      NumberStyle style);

}  // namespace lm::value
