// A file that lists signals, a name a line.
//
// Threads: a pure function. Lifetime: nothing is kept.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"

namespace lm::cli {

/// The lines without blanks around them; empty ones and those that begin with # are left out. A stop ends the
/// reading. Errors: "cannot open signal list PATH", "cannot read signal list PATH", that it is too large or
/// names no signal.
Result<std::vector<std::string>> readSignalList(const std::filesystem::path& path, const StopToken& stop);

}  // namespace lm::cli
