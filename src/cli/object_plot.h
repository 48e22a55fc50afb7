// `get --plot`: a map as a table in colours, a curve as a line.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <string>

#include "a2l/object_content.h"
#include "cli/terminal_plot.h"
#include "value/value_text.h"

namespace lm::cli {

/// The lines below the first. A curve, a block of one dimension and an axis become a line over their points,
/// all else objectTable(), whose values have a colour each when `style` is that of a terminal.
std::string objectPlot(const a2l::ObjectContent& content, const PlotStyle& style, value::NumberStyle numbers);

}  // namespace lm::cli
