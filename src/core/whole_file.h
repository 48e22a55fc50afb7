// A file of others read as a whole: a pipe no one writes to is waited for until a stop is requested, and what
// has no end is refused at a bound.
//
// Threads: pure functions from any thread. Lifetime: results own their text.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "core/result.h"
#include "core/stop_token.h"

namespace lm {

/// Errors: "cannot open PATH", "cannot read PATH", (invalidArgument) "PATH is larger than N MiB", and
/// Error::stopped.
Result<std::string> readWholeFile(const std::filesystem::path& path, std::size_t maxSize,
                                  const StopToken& stop);

}  // namespace lm
