// Which commands the simulated slave knows with its options, and so which ones its A2L file names.
//
// Threads: pure functions.
#pragma once

#include "sim/options.h"
#include "sim/protocol.h"

namespace lm::sim {

inline bool isOffered(const CommandInfo& command, const Options& options) {
    if (options.without.count(command.code) != 0) return false;
    return command.presence != Presence::withLock || options.lock.resources != 0;
}

}  // namespace lm::sim
