// What `recording show` prints: signals of a recording over time, drawn from the summary levels.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/output.h"
#include "cli/terminal_plot.h"
#include "storage/read/recording_reader.h"

namespace lm::cli {

struct PlotOptions {
    std::vector<std::string> signals;  ///< names and patterns
    std::optional<std::string> from;
    std::optional<std::string> to;
};

/// As wide as the terminal, in braille; 80 plain columns when `descriptor` is none.
PlotStyle plotStyleFor(int descriptor);

/// Plots the signals that the options name, all on one time axis. Returns the exit code; errors are on
/// standard error.
int plotSignals(const storage::RecordingReader& recording, const PlotOptions& options, const PlotStyle& style,
                Output& output);

}  // namespace lm::cli
