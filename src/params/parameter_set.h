// Parameters with the values they hold, away from the ECU: what a snapshot is made of, what is compared, and
// what the parameter files of all forms are read into and written from.
//
// Threads: plain values. Lifetime: own everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "value/value.h"

namespace lm::params {

enum class Shape : std::uint8_t { scalar, text, block, curve, map, cuboid, cube4, cube5, axis };

enum class AxisKind : std::uint8_t { standard, fixed, common, rescale, curve };

struct ParameterAxis {
    AxisKind kind = AxisKind::standard;
    /// The parameter that holds the points of a common, rescale or curve axis; empty: they are here.
    std::string reference = {};
    std::string unit = {};
    /// Physical, in logical order. Those of an axis with a reference are there to be read by people; the
    /// referenced parameter tells the true ones.
    std::vector<value::Value> points = {};
    /// As Parameter::raws, of the points.
    std::vector<value::Value> raws = {};
};

struct Parameter {
    std::string name;  ///< as the A2L has it; a leaf of a structure is "engine.cyl[2].gain"
    std::string description = {};
    Shape shape = Shape::scalar;
    /// Values along X, Y, ... that are in use; empty for a scalar and a text.
    std::vector<std::size_t> dimensions = {};
    std::string unit = {};
    std::string function = {};  ///< the A2L FUNCTION that defines it, may be empty
    /// Physical: a number, or the text of a verbal conversion. X runs fastest. A text parameter has one
    /// value; an axis its points, a rescale axis pairs (axis value, index) with two along X.
    std::vector<value::Value> values = {};
    /// As many raw values as they are stored (points of DEPOSIT DIFFERENCE of a float as their steps), when
    /// writing the physical ones would not give the same bytes; else empty. Of a float without a finite
    /// value, and of a text, the bytes as a text: "0x7FC00000", the first digit the highest; of a text in the
    /// order of the memory.
    std::vector<value::Value> raws = {};
    std::vector<ParameterAxis> axes = {};  ///< X, Y, ...; none for scalars, texts, blocks and axes
    /// SHA-256 of the bytes in the ECU, lower-case hexadecimal; empty when they are not known.
    std::string digest = {};
};

/// Where the values come from. Empty texts: not known.
struct Origin {
    std::string ecu = {};
    std::string a2lFile = {};  ///< name without directories
    std::string a2lSha256 = {};
    std::string epk = {};
    std::string pages = {};  ///< the calibration pages that were read, in words
    std::string time = {};   ///< ISO 8601 in UTC
    std::string creator = {};
};

struct ParameterSet {
    Origin origin = {};
    std::vector<Parameter> parameters = {};  ///< as sortByName() leaves them, names differ
    std::vector<std::string> leftOut = {};   ///< names in a file that was read, with nothing to be taken

    /// Bytewise by name. Error (invalidArgument): "'NAME' is there twice".
    Result<void> sortByName();
    /// Once sorted; nullptr when there is none.
    const Parameter* find(std::string_view name) const;
};

/// Whether counts of values, raw values, axes and dimensions fit the shape. Errors (invalidArgument): "NAME:
/// N value(s), where its dimensions want M" and the like.
Result<void> checkShape(const Parameter& parameter);

/// "scalar", "text", "block", "curve", "map", "cuboid", "cube4", "cube5", "axis".
std::string_view shapeName(Shape shape);
/// "standard", "fixed", "common", "rescale", "curve".
std::string_view axisKindName(AxisKind kind);

}  // namespace lm::params
