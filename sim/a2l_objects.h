// The objects of the A2L file: measurements, parameters, axis points, structures, and the trees over them.
//
// Threads: pure functions. Lifetime: nothing is kept. `version` is 161 for A2L 1.61 everywhere.
#pragma once

#include <cstdint>
#include <string>

#include "sim/catalog.h"

namespace lm::sim {

/// Half precision came with 1.71.
constexpr bool isTypeKnown(DataType type, std::uint16_t version) {
    return type != DataType::float16 || version >= 171;
}

/// Whether a file of that version has the object.
bool isDescribed(const Row& row, std::uint16_t version);

/// The block of one object, instances of structures too.
std::string a2lObject(const Row& row, std::uint16_t version);

/// The types of structures and of their leaves.
std::string a2lTypes(std::uint16_t version);

/// Each object but the load signals in one group of a tree; and what some of them are for.
std::string a2lGroups(const Catalog& catalog, std::uint16_t version);
std::string a2lFunctions(std::uint16_t version);

}  // namespace lm::sim
