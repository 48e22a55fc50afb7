// A curve, a map, a block or an axis as lines of text: the kind, the axes, then the values in rows and
// columns. All texts are printable.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <string>
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

/// A line for each axis, indented: "  x: engine_speed (rpm), shared cal_speed_axis".
std::string axisLines(const a2l::ObjectContent& content);

/// The values of one map of an object: X across, Y down. With more dimensions there are several.
struct TablePage {
    std::string title;        ///< "z = 10.0"; empty when there is one page
    std::size_t first = 0;    ///< the number of its first element; they follow each other
    std::size_t columns = 1;  ///< along X
    std::size_t rows = 1;     ///< along Y
};
std::vector<TablePage> tablePages(const a2l::ObjectContent& content, value::NumberStyle style);

/// All lines below the first.
std::string objectTable(const a2l::ObjectContent& content, value::NumberStyle style);

}  // namespace lm::cli
