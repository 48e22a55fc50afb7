// What became of an object whose writing failed, number by number: the new value, the former one, another.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "a2l/object_content.h"
#include "session/object_access.h"
#include "value/element.h"

namespace lm::session {

/// An object whose writing failed: what was to change, and what the ECU holds of it.
struct HeldObject {
    struct Number {
        value::Element element;
        HeldSpan::State state = HeldSpan::State::unknown;
    };
    std::string name;
    bool isDependent = false;  ///< it was to change because another one did
    std::vector<Number> numbers;
    std::optional<a2l::ObjectContent> content;  ///< none when the ECU told not all of it
};

/// `before` and `wanted` are those of the wish, which is not always the last write; no spans: nothing could
/// be read.
HeldObject heldObject(const a2l::ObjectContent& before, const a2l::MemoryImage& wanted,
                      const std::vector<HeldSpan>& spans, bool isDependent);

/// Of one object, whatever became of bits beside them.
bool sameValues(const a2l::ObjectContent& a, const a2l::ObjectContent& b);

}  // namespace lm::session
