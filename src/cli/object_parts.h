// What `describe` tells of an object beyond its record: its parts in memory, where it stands in the file's
// folders, what it is computed from, and on which rules that are not settled it rests.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "cli/json_writer.h"

namespace lm::cli {

/// Bytes of an object that lie together.
struct MemoryPart {
    std::string name;  ///< "values", "points of axis x"
    std::uint32_t address = 0;
    std::uint64_t size = 0;
};

struct ObjectParts {
    std::vector<std::uint32_t> dimensions;  ///< all there can be, X first
    std::vector<MemoryPart> parts;
    bool memoryTells = false;  ///< where they lie depends on what the ECU holds; then there are none here
    std::string notPlaced;     ///< why they cannot lie anywhere; else empty
    std::vector<std::string> restsOn;
};

/// As far as the A2L tells it without the ECU; nothing for what is no object.
ObjectParts partsOf(const a2l::Description& description, std::string_view name);

struct Relations {
    std::vector<std::string> folders;  ///< "GROUP Tables", "FUNCTION Ignition (defined)"
    std::string computedFrom;          ///< "a, b: X1 * X2"; empty when it is not computed
    std::vector<std::string> dependents;
};

/// Of an object, and of the instance that it is a part of.
Relations relationsOf(const a2l::Description& description, std::string_view name, std::string_view instance);

/// As members of the object.
void writeParts(JsonWriter& json, const ObjectParts& parts);
void writeRelations(JsonWriter& json, const Relations& relations);

}  // namespace lm::cli
