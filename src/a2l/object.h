// A name of the A2L resolved to what it says of itself and to the elements that hold its values.
//
// Threads: an object is immutable; all functions are pure. Lifetime: owns everything; independent of the
// description it was found in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "value/element.h"

namespace lm::a2l {

enum class ObjectKind : std::uint8_t { measurement, characteristic };

/// What the A2L says of an object, and its elements. They are made when they are asked for: what has a
/// million of them takes no more memory than a scalar.
struct Object {
    std::string name;
    std::string description;  ///< long identifier
    std::string displayName;  ///< DISPLAY_IDENTIFIER, may be empty
    ObjectKind kind = ObjectKind::measurement;
    bool writable = false;                  ///< characteristic: not READ_ONLY; measurement: READ_WRITE
    std::vector<std::uint16_t> events;      ///< event channels the A2L names for a measurement
    std::vector<std::uint32_t> dimensions;  ///< elements along each axis; none for a scalar

    std::size_t elementCount() const;
    /// `index` is below elementCount().
    value::Element element(std::size_t index = 0) const;

    value::Element first;  ///< what all elements have in common, at the address of the first
};

/// Errors (notFound): "'NAME' is neither a MEASUREMENT nor a CHARACTERISTIC", "NAME: REASON".
Result<Object> findObject(const Description& description, std::string_view name);

// The scalar view: one number to an object, as a double.

/// As findObject(), whose error it throws as an ObjectError (object_error.h).
Object resolve(const Description& description, std::string_view name);

/// As value::encodePhysical() of the one element.
Result<void> encodePhysical(const Object& object, double physical, std::span<std::uint8_t> buffer);

}  // namespace lm::a2l
