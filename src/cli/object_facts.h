// What an A2L says about one object, of whichever kind, in one form: `describe` shows it.
//
// Threads: pure functions. Lifetime: views into the description.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "a2l/structure.h"

namespace lm::cli {

/// Where an object is used: "input of axis 1 of NAME".
struct Use {
    std::string_view by;   ///< the name of the object that uses it
    std::string_view how;  ///< "input", "points", "conversion"
    std::size_t axis = 0;  ///< which one, from 1; 0: not of an axis description
};

/// A field that the kind does not have, or the file does not tell, is empty.
struct ObjectFacts {
    std::string_view kind;  ///< "measurement", "parameter", "axis", "blob", "instance", "conversion"
    std::string_view name;
    std::string_view description;
    std::string_view displayName;
    std::string_view type;  ///< data type, or VALUE, CURVE, ...
    std::optional<std::uint32_t> address;
    std::uint8_t addressExtension = 0;
    std::optional<ByteOrder> byteOrder;
    std::optional<std::pair<double, double>> limits;
    std::optional<std::pair<double, double>> extendedLimits;
    a2l::BitField bits;
    std::uint32_t elementCount = 1;
    std::span<const std::uint16_t> events;
    std::optional<bool> writable;
    bool isPointer = false;
    bool isVirtual = false;
    std::string_view format;                   ///< its own
    std::optional<std::string_view> physUnit;  ///< its own
    std::string_view conversion;               ///< the name of the method
    std::string_view recordLayout;
    std::string_view inputQuantity;              ///< of an axis object
    std::optional<std::uint32_t> maxAxisPoints;  ///< of an axis object
    std::span<const a2l::AxisDescription> axes;
    std::string_view typeDefinition = {};         ///< TYPEDEF_... of an instance or one of its parts
    std::string_view instance = {};               ///< of a part
    std::optional<std::uint64_t> leafCount = {};  ///< of an instance
    std::vector<std::string> pointers = {};       ///< on the way to a part
    std::shared_ptr<const a2l::Leaf> leaf = {};   ///< holds the name of a part
};

/// Looks for a measurement, a parameter, an axis, a blob, an instance or a part of one, and a conversion, in
/// this order.
std::optional<ObjectFacts> findFacts(const a2l::Description& description, std::string_view name);

/// In the order of the file, parameters before axis objects; one pass over all objects.
std::vector<Use> usesOf(const a2l::Description& description, const ObjectFacts& object);

}  // namespace lm::cli
