// Names of a description that resemble one that is not in it: for the hint after a slip of the pen.
//
// Threads: pure functions. Lifetime: the names returned are views into the description.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"

namespace lm::a2l {

/// Measurements and characteristics, the most similar first, `most` at the most: the same but for its case, a
/// few letters different, or with `name` as a part. One pass over all names, some ten milliseconds for
/// 300,000 of them.
std::vector<std::string_view> similarNames(const Description& description, std::string_view name,
                                           std::size_t most = 3);

/// What to tell a user who asked for a name that is neither: what else it names, or what may have been meant;
/// empty when nothing is known.
std::string unknownNameHint(const Description& description, std::string_view name);

}  // namespace lm::a2l
