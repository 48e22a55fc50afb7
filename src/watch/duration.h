// Times as a user types them: "2s", "500 ms", "1.5min".
//
// Threads: a pure function. Lifetime: nothing is kept.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace lm::watch {

/// A number that is not negative and ms, s, min or h, at most 1000 days; none for all else, also a number
/// without a unit.
std::optional<std::chrono::nanoseconds> parseDuration(std::string_view text);

}  // namespace lm::watch
