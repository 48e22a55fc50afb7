// Writes parameter sets as DCM files (KONSERVIERUNG_FORMAT 2.0).
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include "core/result.h"
#include "params/physical_form.h"

namespace lm::params {

/// In UTF-8. Cuboids, blocks of more than two dimensions, rescale and curve axes, and axes of two kinds in
/// one parameter are left out: the form has no words for them. The same set gives the same text. Error
/// (invalidArgument): a parameter whose counts do not fit its shape.
Result<WrittenSet> writeDcm(const ParameterSet& set);

}  // namespace lm::params
