// All names of an A2L in short, for a search on the other side.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "a2l/description.h"

namespace lm::cli {

/// A line for each object: kind, name, unit and description with tabs between them. Kinds: m measurement, p
/// parameter, c curve, M map and more dimensions, b block, t text, a axis, s structure, whose parts are not
/// told. Control characters in a text are blanks.
std::string objectNames(const a2l::Description& description);

}  // namespace lm::cli
