// Reads parameter sets of ASAM CDF 2.x files (.cdfx).
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <string_view>

#include "core/result.h"
#include "params/physical_form.h"

namespace lm::params {

/// All parameters of the file. Elements that are not known are passed over; categories that are not are left
/// out with a warning. Errors (invalidArgument, unsupported), with the line: broken or dangerous XML, what is
/// no CDF 2.x, counts that do not fit, names that are there twice, several variants of one parameter.
Result<ReadSet> readCdfx(std::string_view bytes);

}  // namespace lm::params
