// Which commands the simulated slave knows with its options, and so which ones its A2L file names.
//
// Threads: pure functions.
#pragma once

#include "sim/options.h"
#include "sim/protocol.h"

namespace lm::sim {

inline bool isOffered(const CommandInfo& command, const Options& options) {
    if (options.without.count(command.code) != 0) return false;
    if (isDaqCommand(command.code) && !options.daq) return false;
    switch (command.presence) {
        case Presence::withLock:
            return options.lock.resources != 0;
        case Presence::withStaticLists:
            return options.isStatic();
        case Presence::withDynamicLists:
            return !options.isStatic();
        case Presence::onRequest:
            return options.offer.count(command.code) != 0;
        case Presence::withIdentity:
            return !options.paging.epk.empty() || options.paging.pages != 0;
        case Presence::withMasterBlocks:
            return options.blocks.maxBs != 0;
        case Presence::withPages:
            return options.paging.pages != 0;
        case Presence::withListCanIds:
            return !options.canListIds.empty();
        default:
            return true;
    }
}

}  // namespace lm::sim
