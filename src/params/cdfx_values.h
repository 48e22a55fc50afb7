// The values of a CDFX file: numbers and texts, in groups that tell the dimensions.
//
// Threads: pure functions. Lifetime: results own their text; nodes are borrowed during the call.
#pragma once

#include <cstddef>
#include <optional>
#include <pugixml.hpp>
#include <string>
#include <vector>

#include "core/result.h"
#include "params/set_reading.h"
#include "params/xml_input.h"
#include "value/value.h"

namespace lm::params {

struct CdfxValues {
    std::vector<value::Value> values = {};
    std::vector<std::size_t> nesting = {};  ///< of the groups, innermost first; {count} without any
    std::vector<std::size_t> sizes = {};    ///< what SW-ARRAYSIZE says
    std::string unit = {};
};

/// An SW-VALUE-CONT or SW-AXIS-CONT. Errors tell the line of what is no number or does not fit together.
Result<CdfxValues> readCdfxValues(const SetReading& reading, const XmlInput& input, pugi::xml_node container);

/// How many values lie along X, Y, ...; `rank` is how many dimensions there have to be, none: as many as the
/// file says. Error (invalidArgument), without a line: what does not fit.
Result<std::vector<std::size_t>> dimensionsOf(const CdfxValues& values, std::optional<std::size_t> rank);

}  // namespace lm::params
