// What users call objects and their parts: NAME, NAME[1][2], NAME[1][*] or NAME[1] for a row, NAME.x[3].
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"

namespace lm::a2l {

struct ObjectName {
    std::string text;                 ///< as it was given
    std::string object;               ///< the name in the A2L
    std::optional<std::size_t> axis;  ///< 0 for `.x`: the part is that axis, not the values
    /// One per dimension, none for `*`. Empty: the whole part.
    std::vector<std::optional<std::uint32_t>> indices;

    /// No index and no axis.
    bool isWhole() const { return !axis && indices.empty(); }
    /// One element where no dimension is left without an index; with fewer of them a row.
    bool isElement() const;
};

/// Takes a name apart. A name that exists as a whole wins over every other reading, and of the others the one
/// with the longest name. Errors (notFound): "'TEXT' is neither a MEASUREMENT nor a CHARACTERISTIC".
Result<ObjectName> parseObjectName(const Description& description, std::string_view text);

/// Whether there are such elements. Errors (invalidArgument): "TEXT: ...".
Result<void> checkIndices(const ObjectName& name, std::span<const std::uint32_t> dimensions);

/// The numbers of the elements that the indices choose, in the order of the elements; all of a dimension that
/// has none or a `*`. Errors: those of checkIndices().
Result<std::vector<std::size_t>> selectElements(const ObjectName& name,
                                                std::span<const std::uint32_t> dimensions);

/// "[1][2]" of an element's number, X fastest; "" without dimensions.
std::string indexText(std::size_t number, std::span<const std::uint32_t> dimensions);

/// ".x", ".y", ".z", ".4", ".5".
std::string_view axisSuffix(std::size_t axis);

}  // namespace lm::a2l
