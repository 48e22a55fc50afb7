// The kinds of objects in a DCM file.
//
// Threads: constants. Lifetime: for ever.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "params/parameter_set.h"

namespace lm::params {

struct DcmKind {
    std::string_view keyword;
    Shape shape;
    std::size_t leastCounts = 0;  ///< after the name
    std::size_t mostCounts = 0;
    AxisKind axes = AxisKind::standard;  ///< a file has one kind for all axes of a parameter
};

inline constexpr std::array<DcmKind, 10> kDcmKinds = {{
    {"FESTWERT", Shape::scalar},
    {"TEXTSTRING", Shape::text},
    {"FESTWERTEBLOCK", Shape::block, 1, 2},
    {"STUETZSTELLENVERTEILUNG", Shape::axis, 1, 1},
    {"KENNLINIE", Shape::curve, 1, 1},
    {"FESTKENNLINIE", Shape::curve, 1, 1, AxisKind::fixed},
    {"GRUPPENKENNLINIE", Shape::curve, 1, 1, AxisKind::common},
    {"KENNFELD", Shape::map, 2, 2},
    {"FESTKENNFELD", Shape::map, 2, 2, AxisKind::fixed},
    {"GRUPPENKENNFELD", Shape::map, 2, 2, AxisKind::common},
}};

}  // namespace lm::params
