// From what a user types for an object or a part of it to the changes of its elements and points.
//
// Threads: pure functions; readTypedFile waits for a pipe. Lifetime: results own everything.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/object_content.h"
#include "a2l/object_name.h"
#include "a2l/placed_object.h"
#include "core/result.h"
#include "core/stop_token.h"

namespace lm::session {

/// One element or point, with what was typed for it.
struct TypedChange {
    a2l::ObjectChange change;
    value::Element element;
    std::string text;
};

/// Which numbers a name chooses, and along which dimensions: those that have no index in the name.
struct ChosenNumbers {
    std::vector<std::size_t> numbers;
    std::vector<std::uint32_t> dimensions;
};

/// Errors (invalidArgument): those of a2l::selectElements, that the object has no such axis.
Result<ChosenNumbers> chooseNumbers(const a2l::ObjectName& name, const a2l::PlacedObject& object);

/// The element of a number: of the values, or of the axis that the name has.
value::Element elementOf(const a2l::ObjectName& name, const a2l::PlacedObject& object, std::size_t number);

/// Reads the text as one value for a single number and for all that a `*` chooses, as a list (parseList) or,
/// behind `@`, as the CSV file of that name (parseCsv). Errors: those of chooseNumbers, value::parseText,
/// reading the file, and (invalidArgument) that a list is needed.
Result<std::vector<TypedChange>> typedChanges(const a2l::ObjectName& name, const a2l::PlacedObject& object,
                                              std::string_view text, const StopToken& stop);

}  // namespace lm::session
