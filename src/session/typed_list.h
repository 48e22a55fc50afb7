// Many values as a user types them: a nested list, [[1,2],[3,4]], or the lines of a CSV file.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"

namespace lm::session {

/// Whether a text is meant as a list.
bool isList(std::string_view text);

/// The texts of a nested list, by numbers that count with the first dimension fastest: its item [1][2] is
/// that of NAME[1][2]. Texts may stand in quotes, where a backslash takes the next character as it is. Errors
/// (invalidArgument): "NAME: REASON" for what is no list, has too few or too many items somewhere, or goes
/// on behind its end.
Result<std::vector<std::string>> parseList(const std::string& name, std::string_view text,
                                           std::span<const std::uint32_t> dimensions);

/// The same of CSV: a line has the first dimension, empty lines do not count. One dimension may also stand
/// in a column. A semicolon or a tabulator in the first line separates the values, else the comma. Errors
/// (invalidArgument): "FILE line N: REASON", "FILE: REASON".
Result<std::vector<std::string>> parseCsv(const std::string& file, std::string_view text,
                                          std::span<const std::uint32_t> dimensions);

}  // namespace lm::session
