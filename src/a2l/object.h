// A name of the A2L resolved to a place in ECU memory, its coding, conversion and limits; and the way of a
// physical value into its bytes.
//
// Threads: a resolved object is immutable; all functions are pure. Lifetime: owns everything; independent of
// the description it was resolved from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "core/ecu_address.h"
#include "core/result.h"
#include "value/conversion.h"
#include "value/raw_value.h"

namespace lm::a2l {

/// Why a name cannot be resolved; what() is the whole message.
class ObjectError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class ObjectKind : std::uint8_t { measurement, characteristic };

struct ResolvedObject {
    std::string name;
    std::string description;  ///< long identifier
    std::string displayName;  ///< DISPLAY_IDENTIFIER, may be empty
    ObjectKind kind = ObjectKind::measurement;
    xcp::Address address;
    value::RawCoding coding;
    value::Conversion conversion;  ///< with the object's own format and unit
    double lowerLimit = 0;
    double upperLimit = 0;
    bool writable = false;              ///< characteristic: not READ_ONLY; measurement: READ_WRITE
    bool emptyMask = false;             ///< BIT_MASK 0x0: reads like no mask, and no bit may change
    std::vector<std::uint16_t> events;  ///< event channels the A2L names for a measurement

    std::size_t size() const { return coding.size(); }
    /// Integers of 64 bits keep all of them between text and bytes; a double holds all other values.
    bool keepsIntegers() const {
        return size() == sizeof(std::uint64_t) && !value::isFloat(coding.dataType) &&
               conversion.binaryExponent();
    }
};

/// Throws ObjectError with the whole message.
ResolvedObject resolve(const Description& description, std::string_view name);

/// Limit check, inverse conversion, raw encode. `buffer` holds the current ECU bytes (their bits outside a
/// mask stay). A limit that is not finite is none. Errors (invalidArgument or unsupported, buffer untouched)
/// bear the object's name.
Result<void> encodePhysical(const ResolvedObject& object, long double physical,
                            std::span<std::uint8_t> buffer);

}  // namespace lm::a2l
