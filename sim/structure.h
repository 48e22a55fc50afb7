// The structures of the simulated ECU: what their types are made of, in the words of the A2L file.
//
// Threads: immutable once built. Lifetime: structures() lives as long as the program.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "sim/catalog.h"

namespace lm::sim {

struct Component {
    std::string name;
    std::string type;  ///< a leaf type or a structure
    std::uint32_t offset;
    std::uint16_t count = 0;  ///< elements, 0: not an array
};

struct Structure {
    std::string name;
    std::string description;
    std::uint32_t size;
    std::vector<Component> components;
};

struct Structures {
    /// Rows without a place, named as their type: measurements, characteristics, axis points.
    std::vector<Row> leaves;
    std::vector<Structure> structures;  ///< each after those that it holds
    const Row* leaf(std::string_view name) const;
    const Structure* structure(std::string_view name) const;
};

const Structures& structures();

}  // namespace lm::sim
