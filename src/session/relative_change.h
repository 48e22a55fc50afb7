// Changes that are meant from what is held: so much more, so much less, so many times as much.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "a2l/object_content.h"
#include "a2l/object_name.h"
#include "core/result.h"
#include "session/typed_change.h"

namespace lm::session {

/// How the text of an assignment is meant.
enum class Relation : std::uint8_t { value, plus, minus, times };

/// Of each number that the name chooses, in physical values. Errors (invalidArgument): those of
/// chooseNumbers, "NAME: 'TEXT' is not a number", that a number holds a text of its conversion, that a whole
/// array was named without [*].
Result<std::vector<TypedChange>> relativeChanges(const a2l::ObjectName& name,
                                                 const a2l::ObjectContent& content, Relation relation,
                                                 std::string_view text);

}  // namespace lm::session
