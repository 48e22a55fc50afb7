// The subcommands `get` and `set`: values of the ECU by name.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/output.h"
#include "session/session.h"

namespace lm::cli {

/// NAME=VALUE cut at the first '='; none when there is no '=' or nothing before it.
std::optional<std::pair<std::string_view, std::string_view>> splitAssignment(std::string_view text);

/// Prints one line per name; a failure does not stop the rest, a stop request and a failed output do.
/// Returns the exit code.
int runGet(session::Session& session, const std::vector<std::string>& names, Output& output);

/// Writes each value and prints it as read back. A failed output stops nothing: what was asked for is
/// written. Returns the exit code.
int runSet(session::Session& session, const std::vector<std::string>& assignments, bool allowMeasurements,
           Output& output);

}  // namespace lm::cli
