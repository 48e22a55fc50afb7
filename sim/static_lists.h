// From what is typed to the static DAQ lists of the simulated slave.
//
// Threads: a pure function. Lifetime: nothing is kept.
#pragma once

#include <string>
#include <vector>

#include "core/result.h"
#include "sim/catalog.h"
#include "sim/options.h"

namespace lm::sim {

struct StaticListTexts {
    std::vector<std::string> lists = {};       ///< each ODTSxENTRIES[@EVENT]
    std::vector<std::string> predefined = {};  ///< each SIGNAL,SIGNAL...[@EVENT]
    std::vector<std::string> firstPids = {};   ///< one for each list; empty: in a row from Options::firstPid
};

/// What `--static-daq` alone stands for.
inline const std::vector<std::string> kSomeLists{"10x7", "10x7", "10x7", "4x7"};

/// The predefined lists come first. Errors: invalidArgument with option, text and reason.
Result<std::vector<StaticList>> makeStaticLists(const StaticListTexts& texts, const Options& options,
                                                const Catalog& catalog);

}  // namespace lm::sim
