// `info --offline`: what an A2L says about reaching the ECU, and how much it describes.
//
// Threads: the main thread. Lifetime: nothing is kept.
#pragma once

#include "cli/command.h"

namespace lm::cli {

/// Returns the exit code.
int showOfflineInfo(Workplace& place);

}  // namespace lm::cli
