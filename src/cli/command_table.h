// All commands of the program, in the order of its help text.
//
// Threads: constant. Lifetime: the program's.
#pragma once

#include <span>

#include "cli/command.h"

namespace lm::cli {

std::span<const CommandRow> commandTable();

/// What a command line without a command does: connect, and no more.
const CommandRow& noCommand();

}  // namespace lm::cli
