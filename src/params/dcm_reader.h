// Reads parameter sets of DCM files (KONSERVIERUNG_FORMAT 2.0).
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <string_view>

#include "core/result.h"
#include "params/physical_form.h"

namespace lm::params {

/// All parameters of the file, which is ISO-8859-1 unless its first line says otherwise. Lines inside a
/// parameter that are not known are passed over with a warning. Errors (invalidArgument, unsupported), with
/// the line: another version, keywords that are not known outside a parameter, a missing END, counts that do
/// not fit, names that are there twice.
Result<ReadSet> readDcm(std::string_view bytes);

}  // namespace lm::params
