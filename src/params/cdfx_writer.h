// Writes parameter sets as ASAM CDF 2.x files (.cdfx).
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include "core/result.h"
#include "params/physical_form.h"

namespace lm::params {

/// CDF 2.0 in UTF-8, one row of values per line; CDF 2.1 where there are cuboids and larger. The same set
/// gives the same text. Error (invalidArgument): a parameter whose counts do not fit its shape.
Result<WrittenSet> writeCdfx(const ParameterSet& set);

}  // namespace lm::params
