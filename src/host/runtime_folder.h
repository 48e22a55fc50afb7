// The folder in which the programs of one user find each other: nobody else can put anything there, or read
// it.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "core/result.h"

namespace lm::host {

/// "xcplumo" in $XDG_RUNTIME_DIR, else "xcplumo-UID" among the temporary files; made with mode 0700 when it
/// is not there. Errors: by errno "cannot create FOLDER: REASON", permissionDenied "FOLDER is not used:
/// REASON".
Result<std::filesystem::path> runtimeFolder();

/// The name of the files of the ECU at this place, without an ending: letters, digits, and a sum that tells
/// places apart whose letters are the same.
std::string fileNameOf(std::string_view place);

/// The name of a user, or his number.
std::string userName(unsigned uid);
/// The command line of a process, as far as it may be read, shortened; empty: there is no such process.
std::string commandOf(long long pid);

}  // namespace lm::host
