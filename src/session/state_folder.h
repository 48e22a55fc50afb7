// Where the program keeps what outlives a command: undo files, and the file of changes of each ECU.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <string_view>

#include "core/result.h"

namespace lm::session {

/// $XDG_STATE_HOME/xcplumo, by default ~/.local/state/xcplumo; made when it is not there, for the user alone.
/// Errors: that there is neither variable; "cannot create PATH".
Result<std::filesystem::path> stateFolder();

/// The name of an ECU as part of a file's name.
std::string fileNamePart(std::string_view ecu);

/// A moment, by default this very one, in UTC: "2026-11-23T02:54:15.123Z".
std::string utcTime(std::chrono::system_clock::time_point moment = std::chrono::system_clock::now());

}  // namespace lm::session
