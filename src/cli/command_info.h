// The subcommand `info`: what the ECU told at CONNECT, its DAQ abilities and its status.
//
// Threads: one thread; the texts are pure functions. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "cli/output.h"
#include "session/session.h"

namespace lm::cli {

/// The lines "resources" and "communication".
std::string connectLines(const xcp::ConnectInfo& info);

/// The line "DAQ" and one line per event channel.
std::string daqLines(const xcp::DaqCapabilities& daq);

/// Prints everything about an open session. Returns the exit code.
int runInfo(session::Session& session, Output& output);

}  // namespace lm::cli
