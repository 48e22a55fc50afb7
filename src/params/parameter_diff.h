// What differs between two sets of parameters, number by number.
//
// Threads: pure functions. Lifetime: results borrow the sets, which must outlive them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "params/parameter_set.h"

namespace lm::params {

/// A number that is not the same in both.
struct NumberDifference {
    std::string place;  ///< "[2][3]", ".x[1]" for a point of an axis; empty for a scalar and a text
    const value::Value* a = nullptr;
    const value::Value* b = nullptr;
    bool areRaw = false;            ///< the physical values are the same, these are the raw ones
    std::optional<double> by = {};  ///< from a to b, where both are numbers
};

struct ParameterDifference {
    enum class Kind : std::uint8_t { different, onlyInA, onlyInB, notComparable };

    Kind kind = Kind::different;
    const Parameter* a = nullptr;
    const Parameter* b = nullptr;
    std::string why = {};  ///< of what is not comparable, or differs not in its numbers alone
    std::vector<NumberDifference> numbers = {};
    std::optional<std::size_t> largest = {};  ///< of these, by the size of `by`
    std::size_t compared = 0;                 ///< numbers in all, points of axes included

    const Parameter& any() const { return a != nullptr ? *a : *b; }
};

struct SetDifference {
    std::vector<ParameterDifference> parameters;  ///< by name; the equal ones are only counted
    std::size_t equal = 0;

    std::size_t count(ParameterDifference::Kind kind) const;
};

/// Whether two physical values of a number of the parameter (or of a point of its axis) that are not the same
/// are within half a step of the raw value.
using WithinStep = std::function<bool(const Parameter& parameter, std::optional<std::size_t> axis,
                                      const value::Value& a, const value::Value& b)>;

/// Both sorted. Without `within` values are the same or they differ. A unit that one side does not know makes
/// nothing incomparable.
SetDifference compare(const ParameterSet& a, const ParameterSet& b, const WithinStep& within = {});

/// Empty when number can be held against number; else why not, with names for the two. Units and axes that
/// one of them does not know do not count.
std::string whyNotComparable(const Parameter& a, const Parameter& b, std::string_view inA,
                             std::string_view inB);

/// Whether two values are the same number or text; NaN is the same as NaN.
bool isSame(const value::Value& a, const value::Value& b);

/// "different", "only in A", "only in B", "not comparable".
std::string_view differenceName(ParameterDifference::Kind kind);

/// "its axis NAME differs: [1] 750 in A, 900 in B" of the first axis that another parameter holds, as far as
/// both know its points; empty when there is none. Values over other points are other values. `isIn`: that
/// parameter is looked at itself.
std::string differentSharedAxis(const Parameter& a, const Parameter& b, const WithinStep& within,
                                const std::function<bool(const std::string&)>& isIn, std::string_view inA,
                                std::string_view inB);

}  // namespace lm::params
