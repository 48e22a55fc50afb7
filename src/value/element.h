// One number of an object: where it lies in ECU memory, how its bytes become a value and back, and what it
// may be. An object that is a scalar has one element.
//
// Threads: immutable once made; all functions are pure. Lifetime: owns everything; the conversion is shared
// between the elements that have the same one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "core/ecu_address.h"
#include "core/result.h"
#include "value/conversion.h"
#include "value/raw_value.h"
#include "value/value.h"

namespace lm::value {

struct Element {
    std::string name;
    xcp::Address address;
    RawCoding coding;
    /// With the object's own format and unit; never null.
    std::shared_ptr<const Conversion> conversion = std::make_shared<const Conversion>();
    // Of the physical value. One that is not finite is none.
    double lowerLimit = -std::numeric_limits<double>::infinity();
    double upperLimit = std::numeric_limits<double>::infinity();
    /// Wider ones (EXTENDED_LIMITS), and whether they count instead.
    std::optional<std::pair<double, double>> extendedLimits = std::nullopt;
    bool takesExtended = false;
    bool emptyMask = false;  ///< BIT_MASK 0x0: reads like no mask, and no bit may change

    std::size_t size() const { return coding.size(); }
    /// Integers of 64 bits keep all of them between text and bytes; a double holds all other values.
    bool keepsIntegers() const { return coding.isWide() && conversion->exactLine(); }
};

/// The raw value in `bytes`, which hold at least size() of them.
Value rawValue(const Element& element, const std::uint8_t* bytes);

/// The same with all digits, also where no conversion keeps them.
Value wholeRaw(const Element& element, const std::uint8_t* bytes);

/// The physical value of a raw one: its verbal text where it has one, else a number.
Value physicalValue(const Element& element, const Value& raw);

/// Whether a value is outside the limits; the extended ones do not count.
bool isBeyondLimits(const Element& element, const Value& physical);

/// Limit check, inverse conversion, raw encode of a number (rounded to what the element can hold) or a verbal
/// text. `buffer` holds the current ECU bytes (their bits outside a mask stay). Errors (invalidArgument or
/// unsupported, buffer untouched) bear the element's name.
Result<void> encodePhysical(const Element& element, const Value& physical, std::span<std::uint8_t> buffer);

}  // namespace lm::value
