// What an A2L says of structures: their types, the instances of them, and blocks of raw bytes.
//
// Threads: plain data. Lifetime: the texts live as long as the Description that holds the records.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "a2l/calibration_access.h"

namespace lm::a2l {

/// BLOB, and TYPEDEF_BLOB without a place.
struct Blob {
    std::string_view name;
    std::string_view longIdentifier;
    std::uint32_t address = 0;
    std::uint32_t size = 0;
    std::uint8_t addressExtension = 0;
    CalibrationAccess access = CalibrationAccess::notGiven;
    bool readOnly = false;  ///< READ_ONLY, or an `access` that forbids to write
};

/// Elements side by side that one name of a structure or instance stands for: MATRIX_DIM, LAYOUT and
/// ADDRESS_TYPE of an INSTANCE or a STRUCTURE_COMPONENT.
struct Extent {
    std::uint32_t first = 0;  ///< where its dimensions begin in the description's pool
    std::uint8_t count = 0;   ///< of dimensions; 0: one element, named without an index
    bool columnDir = false;
    std::uint8_t pointerSize = 0;  ///< not 0: the place holds a pointer of so many bytes to the data
};

/// STRUCTURE_COMPONENT.
struct StructureComponent {
    std::string_view name;
    std::string_view typeName;
    std::uint32_t offset = 0;
    Extent extent;
};

/// TYPEDEF_STRUCTURE.
struct StructureType {
    std::string_view name;
    std::string_view longIdentifier;
    std::uint32_t size = 0;  ///< in bytes: the distance of elements in an array
    std::uint8_t pointerSize = 0;
    std::vector<StructureComponent> components;  ///< in file order
    // Made when all types are known.
    std::vector<std::uint32_t> byName;  ///< numbers of the components, sorted by name
    std::uint64_t leafCount = 0;        ///< of one element, nested ones included, saturated
    bool usable = false;                ///< neither in itself nor nested too deep
    bool computed = false;              ///< has leaves that tools compute
};

/// OVERWRITE of an INSTANCE: what one of its parts says otherwise than its type.
struct Overwrite {
    std::string_view part;        ///< THIS, or the components down to it, without indices
    std::uint32_t axis = 0;       ///< 0: the values, 1: X, 2: Y ..
    std::string_view conversion;  ///< empty: not overwritten, also of the texts below
    std::string_view inputQuantity;
    std::string_view format;
    std::string_view monotony;
    std::optional<std::string_view> physUnit;
    std::optional<std::pair<double, double>> limits;
    std::optional<std::pair<double, double>> extendedLimits;
};

/// What few instances have: kept apart, as files have hundreds of thousands of them.
struct InstanceDetails {
    std::string_view longIdentifier;
    std::uint32_t firstOverwrite = 0;  ///< in the description's pool
    std::uint32_t firstEvent = 0;      ///< in the description's pool: those of all measurements in it
    std::uint16_t overwriteCount = 0;
    std::uint16_t eventCount = 0;
    std::uint16_t preferredEvent = 0;  ///< which of them is to be taken first
    Extent extent;
};

/// INSTANCE. The description has the name of its type and its details.
struct Instance {
    std::string_view name;
    std::uint32_t type = 0;     ///< in the description's pool
    std::uint32_t details = 0;  ///< in the description's pool, of which the first has none
    std::uint32_t address = 0;
    std::uint8_t addressExtension = 0;
    CalibrationAccess access = CalibrationAccess::notGiven;
    bool readOnly = false;   ///< READ_ONLY, or an `access` that forbids to write
    bool readWrite = false;  ///< READ_WRITE
};

}  // namespace lm::a2l
