// Whole objects as JSON (docs/json.md): arrays nested so that physical[i][j] is NAME[i][j].
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include "a2l/object_content.h"
#include "cli/json_writer.h"
#include "value/value_text.h"

namespace lm::cli {

/// The object behind the key "value".
void writeObject(JsonWriter& json, const a2l::ObjectContent& content, value::NumberStyle style);

}  // namespace lm::cli
