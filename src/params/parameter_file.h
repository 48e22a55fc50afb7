// Parameter files of all forms: which form a file has, its name's ending tells.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "params/parameter_set.h"

namespace lm::params {

/// `notes` gets what the reader passed over, "PATH: line N: ...". Errors: "cannot read PATH: REASON", the
/// form's own behind "PATH: ", that of checkEnding(), Error::stopped.
Result<ParameterSet> readParameterFile(const std::filesystem::path& path, std::vector<std::string>& notes,
                                       const StopToken& stop = {});

/// The file is whole and on the disk under its name, or not there; `replace` allows to put it in place of
/// another one. `notes` gets what the form cannot hold. Errors: those of checkTarget() and the form's,
/// "cannot write PATH: REASON".
Result<void> writeParameterFile(const std::filesystem::path& path, const ParameterSet& set, bool replace,
                                std::vector<std::string>& notes);

/// Before the work is done: whether the file can be written. Errors: that of checkEnding(); alreadyOpen
/// "PATH already exists (--force overwrites it)" unless `replace`; invalidArgument "PATH is not a regular
/// file".
Result<void> checkTarget(const std::filesystem::path& path, bool replace);

/// Error (invalidArgument): "the name PATH does not end as a parameter file does: .json, ...".
Result<void> checkEnding(const std::filesystem::path& path);

}  // namespace lm::params
