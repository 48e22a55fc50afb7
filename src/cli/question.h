// Asks the user at the terminal before something is done that cannot simply be taken back.
//
// Threads: the main thread. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "core/result.h"

namespace lm::cli {

/// Whether the user at the terminal wants it. Errors: "nothing was changed: QUESTION" when there is none,
/// with
/// --yes as the hint; Error::stopped.
Result<bool> isWanted(const std::string& question);

}  // namespace lm::cli
