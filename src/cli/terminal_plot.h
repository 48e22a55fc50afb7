// A plot of one signal as text: per column of dots the interval of its values, with axes. Braille characters
// hold two by four dots; plain text has one per character.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "storage/format/signal_decoder.h"

namespace lm::cli {

struct PlotStyle {
    std::size_t width = 80;   ///< characters of a line
    std::size_t height = 12;  ///< lines of dots, at least 2
    bool braille = false;
};

struct PlotLabels {
    std::string top;     ///< the greatest value
    std::string bottom;  ///< the least
    std::string left;    ///< the first time
    std::string right;   ///< the last
};

/// Columns of dots beside the labels; at least 1.
std::size_t plotColumns(const PlotStyle& style, const PlotLabels& labels);

/// The lines of the plot, each with its line feed. One interval per column, empty ones leave the column
/// blank; infinite ends reach the border. `range` is finite and gives the vertical scale; when it is a single
/// value, that stands in the middle.
std::string plotText(const std::vector<storage::ValueRange>& columns, const storage::ValueRange& range,
                     const PlotStyle& style, const PlotLabels& labels);

/// Characters of a UTF-8 text, each taken as one wide.
std::size_t characterCount(const std::string& text);

}  // namespace lm::cli
