// The subcommand `recording`: what is in a recording directory, whether it is sound, how to mend it, and how
// its signals look.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include "cli/options.h"
#include "cli/output.h"
#include "value/value_text.h"

namespace lm::cli {

/// Returns the exit code: 0; 1 for an error, for damage found by `check`, for damage that `repair` could not
/// mend. `style` is that of `info`.
int runRecording(const RecordingOptions& options, value::NumberStyle style, Output& output);

}  // namespace lm::cli
