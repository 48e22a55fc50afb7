// The subcommand `list`: the objects of an A2L whose name contains a text.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <cstddef>
#include <string_view>

#include "a2l/description.h"
#include "cli/options.h"
#include "cli/output.h"

namespace lm::cli {

/// Prints one line per matching object, measurements first, each kind in file order. Returns the number of
/// lines.
std::size_t printObjects(const a2l::Description& description, const Options& options, Output& output);

/// Loads the A2L of the configuration, prints the matches and their number. Returns the exit code.
int runList(const Options& options, const session::SessionConfig& config, Output& output);

}  // namespace lm::cli
