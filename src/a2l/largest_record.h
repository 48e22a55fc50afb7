// How far apart the elements of an array of curves, maps, axes, texts or blocks lie: the bytes that one takes
// with all the points that there can be. Where an object whose size only the memory tells lies at most.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "a2l/description.h"
#include "a2l/memory_image.h"
#include "a2l/object.h"
#include "core/result.h"

namespace lm::a2l {

/// `pointsOf` gives the most points of the AXIS_PTS that an axis refers to, 0 for none. Errors: a layout that
/// is not there or does not fit, a CUBOID with MAP_LIST, which has no record.
Result<std::uint64_t> largestRecord(const Description& description, const Characteristic& type,
                                    const std::function<std::uint32_t(std::string_view)>& pointsOf);
Result<std::uint64_t> largestRecord(const Description& description, const AxisPoints& type);

/// The record of an object with all the points that there can be; none where a pointer leads to it, or when
/// it has no record.
std::optional<MemorySpan> largestPlace(const Object& object);

}  // namespace lm::a2l
