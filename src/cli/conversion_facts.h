// What an A2L says about one conversion, for `describe`.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "cli/json_writer.h"

namespace lm::cli {

/// Its name, unit and format, the formula, and every line of its table; none for an object without one.
std::vector<std::string> conversionLines(const a2l::Description& description, std::string_view method);

/// The member "conversion", null for none.
void writeConversion(JsonWriter& json, const a2l::Description& description, std::string_view method);

}  // namespace lm::cli
