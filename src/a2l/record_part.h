// The arithmetic of records: sizes, borders, distances, and values that alternate with points.
//
// Threads: pure functions. Lifetime: an Alternation points into the object that it was made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "a2l/object.h"
#include "core/result.h"

namespace lm::a2l {

/// Far above the largest object of an ECU.
constexpr std::uint64_t kLargestObject = std::uint64_t{64} << 20U;
/// One above the last address.
constexpr std::uint64_t kAddresses = std::uint64_t{1} << 32U;

/// The product of all; at most twice kAddresses.
std::uint64_t saturatedProduct(std::span<const std::uint32_t> counts, std::uint64_t size);

/// The next multiple of a border.
std::uint64_t roundedUp(std::uint64_t address, std::uint64_t border);

/// The border of what stands in the record itself: the data, or the pointer to it.
std::uint64_t borderOf(const RecordLayout::Entry& entry, const Record& record);

/// Bytes from one element to the next along each dimension: X runs fastest, with `columnDir` Y does.
std::vector<std::uint64_t> stridesOf(std::span<const std::uint32_t> counts, std::size_t size, bool columnDir);

/// Whether the first point of an axis lies last, be it stored in the object or shared.
bool isDecreasing(const Object& object, std::size_t axis);

/// ALTERNATE_WITH_x: points and values lie in one block, by turns.
struct Alternation {
    struct Places {
        std::vector<std::uint32_t> pointStarts;  ///< from the start of the block
        std::vector<std::uint32_t> valueStarts;  ///< of the values of each point
        std::uint64_t valueStride = 0;
        std::uint64_t size = 0;
    };

    const RecordLayout::Entry* first = nullptr;   ///< the one with the lower position
    const RecordLayout::Entry* second = nullptr;  ///< the other
    const RecordLayout::Entry* values = nullptr;  ///< FNC_VALUES
    const RecordLayout::Entry* points = nullptr;  ///< AXIS_PTS_x
    std::size_t axis = 0;

    bool holds(const RecordLayout::Entry& entry) const { return first == &entry || second == &entry; }
    /// Of `count` points with `perPoint` values each; every one is aligned but the first of all.
    Places place(std::uint64_t start, std::uint32_t count, std::uint64_t perPoint,
                 const Record& record) const;

    /// None for an object whose values lie apart. Errors: (invalidArgument) a layout that does not fit,
    /// (unsupported) ALTERNATE_CURVES.
    static Result<std::optional<Alternation>> of(const Object& object);
};

}  // namespace lm::a2l
