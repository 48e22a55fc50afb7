// What a picture of a signal needs to know: whether it is drawn as steps, and its texts.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <nlohmann/json.hpp>

#include "value/element.h"

namespace lm::serve {

/// Adds "unit", "integer" (its physical values are whole numbers) and of a verbal table "isText" and "texts":
/// [[number, text]], of at most 1000 numbers; ranges of several numbers are told by their first.
void addSignalFacts(nlohmann::json& json, const value::Element& element);

}  // namespace lm::serve
