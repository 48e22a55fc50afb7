// Points of an axis as numbers in logical order: from what is stored, and their monotony.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "a2l/record_layout.h"
#include "core/result.h"
#include "value/value.h"

namespace lm::a2l {

/// The points that pairs of axis value and index value stand for: `count` of them lie evenly over the index
/// range, each is mapped back linearly between two pairs.
std::vector<double> rescaledPoints(std::span<const double> pairs, std::uint32_t count);

/// The first point of `after` that breaks the monotony with the one before it where `before`, the same axis
/// until now, does not: an axis that is out of order can be mended step by step. An axis that may go either
/// way goes one way as a whole. Size of `after`: none does.
std::size_t brokenMonotony(std::span<const value::Value> before, std::span<const value::Value> after,
                           Monotony monotony);

}  // namespace lm::a2l
