// The parameter file of this program: JSON with one parameter on a line, sorted by name, so that two of them
// are compared by any tool that compares lines. It holds everything that a ParameterSet does.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "params/parameter_set.h"

namespace lm::params {

/// A number is the shortest that reads back as the same; null is one that is not finite, whose raw value
/// stands beside it. Time and file names stand in the head alone. The set is sorted.
std::string writeJson(const ParameterSet& set);

/// Members in any order, on any lines. `warnings` gets one for each unknown member, which is passed over.
/// Errors (invalidArgument): "line N: ..." for what is no such file, for one of another schema version, and
/// those of checkShape().
Result<ParameterSet> readJson(std::string_view text, std::vector<std::string>& warnings);

}  // namespace lm::params
