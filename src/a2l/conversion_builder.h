// From a COMPU_METHOD with its tables and formulas to a conversion that needs the description no more.
//
// Threads: a pure function. Lifetime: the result owns everything.
#pragma once

#include <string_view>

#include "a2l/description.h"
#include "core/result.h"
#include "value/conversion.h"

namespace lm::a2l {

/// The conversion of an object that names `method`; NO_COMPU_METHOD gives the identical one.
/// Errors (invalidArgument): "COMPU_METHOD 'NAME' not found", "COMPU_TAB 'NAME' not found", "COMPU_VTAB
/// 'NAME' not found", "conversion table is empty", those of value::Formula::compile.
Result<value::Conversion> buildConversion(const Description& description, std::string_view method);

}  // namespace lm::a2l
