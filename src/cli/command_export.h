// The subcommand `export`: a recording as a file of other tools.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include "cli/options.h"
#include "cli/output.h"

namespace lm::cli {

/// Prints the files that were written; progress goes to standard error when that is a terminal. Returns the
/// exit code: 0; 1 for an error and for a stop request, without any output file then.
int runExport(const ExportRequest& request, Output& output);

}  // namespace lm::cli
