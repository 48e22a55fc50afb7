// What a user has to know of the calibration pages after a command has read or written parameters.
//
// Threads: the main thread. Lifetime: nothing is kept.
#pragma once

#include "cli/command.h"

namespace lm::cli {

/// Parameters on another page than the ECU's, or that no one can write, once; nothing without a session.
void tellPages(Workplace& place);

}  // namespace lm::cli
