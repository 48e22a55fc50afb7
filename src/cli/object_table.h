// A curve, a map, a block or an axis as lines of text: the kind, the axes, then the values in rows and
// columns. All texts are printable.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/object_content.h"
#include "value/value_text.h"

namespace lm::cli {

/// "MAP", "VAL_BLK", ...; "AXIS_PTS"; of a measurement its data type.
std::string_view objectTypeName(const a2l::Object& object);

/// What stands behind the name: "MAP 8 x 8, deg".
std::string objectTitle(const a2l::ObjectContent& content);

/// "?" for a value without a text.
std::string shownText(const value::Element& element, const value::Value& physical, value::NumberStyle style);

/// The texts of an axis' points; of no axis, numbers in brackets.
std::vector<std::string> pointTexts(const a2l::ObjectContent& content, std::size_t dimension,
                                    value::NumberStyle style);

/// Numbers side by side, ten to a line, below their heads; `label` stands before those.
std::string lineTable(std::string_view label, std::span<const std::string> heads,
                      std::span<const std::string> values);

/// A line for each axis, indented: "  x: engine_speed (rpm), shared cal_speed_axis".
std::string axisLines(const a2l::ObjectContent& content);

/// Whether the dimensions have axes; else the numbers of the elements stand in place of points.
bool hasAxes(const a2l::PlacedObject& placed);

/// What is done to the text of an element once it has its width.
using Decorate = std::function<std::string(std::size_t number, const std::string& text)>;

/// All lines below the first: X across, Y down, with more dimensions one table after the other.
std::string objectTable(const a2l::ObjectContent& content, value::NumberStyle style,
                        const Decorate& decorate = {});

}  // namespace lm::cli
