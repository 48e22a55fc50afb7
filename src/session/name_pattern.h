// Patterns over all names of an A2L that stand for values, the parts of instances included.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"

namespace lm::session {

/// A text with * or ?, and no name of its own such as NAME[*].
bool isNamePattern(const a2l::Description& description, std::string_view text);

/// Parameters are all that is no measurement: axes and blobs, too.
enum class NameKind : std::uint8_t { all, measurements, parameters };

/// Whether parts of the instance may match: they begin with its name.
bool mayMatchBelow(std::string_view instance, std::string_view pattern);

/// The measurements, parameters, axes, blobs and leaves that match (storage::matchesPattern), each kind in
/// the order of the file. Where only the end of the pattern is indices of an array that the rest matches, the
/// name bears them: NAME[1].
std::vector<std::string> namesMatching(const a2l::Description& description, std::string_view pattern,
                                       NameKind kind = NameKind::all);

}  // namespace lm::session
