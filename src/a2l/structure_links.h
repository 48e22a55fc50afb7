// The last step of reading structures, when all types are known: which part is of which type, how many
// leaves there are, and what contains itself.
//
// Threads: one at a time. Lifetime: keeps nothing.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "a2l/description.h"
#include "a2l/diagnostics.h"

namespace lm::a2l {

/// What a type name stands for; the first for none.
using TypeRecord = std::variant<std::monostate, const Measurement*, const Characteristic*, const AxisPoints*,
                                const Blob*, const StructureType*>;
TypeRecord findType(const Description& description, std::string_view name);

/// Whether values of that type, or some of their parts, are computed by tools.
bool isComputed(const Description& description, std::string_view type);

/// Plain values, of which an array is one leaf.
bool isPlainValue(const TypeRecord& type);

/// The product of its dimensions, saturated; 1 without.
std::uint64_t elementCount(const Description& description, const Extent& extent);
std::uint64_t saturatedProduct(std::uint64_t a, std::uint64_t b);

/// Leaves of a part.
std::uint64_t countLeaves(const Description& description, const TypeRecord& type, const Extent& extent);

/// Completes the structure types. Tells of components with one name, types that are not there and structures
/// in themselves. `lines` are those of the types.
void linkStructures(Description& description, const std::vector<std::uint32_t>& lines,
                    Diagnostics& diagnostics);

}  // namespace lm::a2l
