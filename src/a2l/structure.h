// The parts of instances that hold values: found by their names, `engine.cyl[2].temp`, or walked over. They
// are made when they are asked for: an instance of a million leaves costs no memory before.
//
// A name has an index after each part that has MATRIX_DIM, and after no other. An array of plain values at
// the end of a name is one leaf, `inst.b`, with dimensions; `inst.b[2]` is one of its elements. Arrays of
// structures, curves, maps, texts and arrays come element by element.
//
// Threads: pure functions over an immutable description. Lifetime: a leaf's pointers and views live as long
// as the description.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "a2l/assumptions.h"
#include "a2l/description.h"
#include "a2l/structure_records.h"
#include "core/bytes.h"
#include "core/ecu_address.h"
#include "core/result.h"

namespace lm::a2l {

/// A pointer on the way to a leaf: `size` bytes lie where the way has come to; the data begins where they
/// point to, and the way goes on `offset` bytes behind that.
struct PointerHop {
    std::uint8_t size = 0;
    std::uint32_t offset = 0;
    std::optional<ByteOrder> byteOrder = {};  ///< none: that of the object at the end of the way
};

struct Leaf {
    std::string name;
    /// From a TYPEDEF_..., without a place of its own.
    std::variant<const Measurement*, const Characteristic*, const AxisPoints*, const Blob*> record;
    const Instance* instance = nullptr;
    xcp::Address address;          ///< of the leaf or, with pointers on the way, of the first of them
    std::vector<PointerHop> hops;  ///< from that address on, in this order
    std::string part;              ///< the components down to it without indices; empty: the instance itself
    std::string owner;             ///< what THIS stands for: the structure element it lies in
    std::vector<const Overwrite*> overwrites;  ///< of the instance, for this leaf
    std::vector<std::uint32_t> dimensions;     ///< of its own array, when the name has no index for it
    bool columnDir = false;                    ///< LAYOUT of that array
    Assumptions assumptions;                   ///< on which its place and its overwrites rest
};

/// True for `inst`, `inst[..` and `inst.` of an instance: findLeaf() then tells more than "not found".
bool belongsToInstance(const Description& description, std::string_view name);

/// Errors (notFound): "'NAME' is not part of an INSTANCE", "NAME: REASON" where a part is missing, is a
/// structure, has an index too few, too many or too large, or lies beyond 32-bit addresses.
Result<Leaf> findLeaf(const Description& description, std::string_view name);

/// How many leaves there are, without walking; saturated. 0 where the type is unknown or contains itself.
std::uint64_t leafCount(const Description& description, const Instance& instance);

/// Calls `use` for each leaf in the order of the file and of the elements, until it returns false. Leaves
/// that cannot be placed (an error of findLeaf) come as errors.
void walkLeaves(const Description& description, const Instance& instance,
                const std::function<bool(Result<Leaf>)>& use);

/// A name in AXIS_PTS_REF or CURVE_AXIS_REF of the leaf's record: `THIS.comp` is what lies in the same
/// structure element.
std::string resolveReference(const Leaf& leaf, std::string_view reference);

}  // namespace lm::a2l
