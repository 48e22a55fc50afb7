// The A2L of a command that needs no ECU, and how its properties are named in text and JSON.
//
// Threads: the main thread. Lifetime: results own everything.
#pragma once

#include <optional>
#include <string_view>

#include "a2l/description.h"
#include "cli/command.h"

namespace lm::cli {

/// The session's, when there is one.
const session::SessionConfig& configOf(const Workplace& place);

/// The configured A2L, with its warnings logged. None when an error was told or a stop was requested.
std::optional<a2l::Description> loadA2l(Workplace& place);

/// In the words of an A2L: VALUE, CURVE, ...
std::string_view typeName(a2l::CharacteristicType type);

/// "Motorola" or "Intel", as everywhere in this program.
std::string_view byteOrderName(ByteOrder order);

/// The byte order of an object: its own, else that of the file.
ByteOrder byteOrderOf(const a2l::Description& description, const std::optional<ByteOrder>& own);

}  // namespace lm::cli
