// Durations as XCP tells them: a count and a power of ten.
//
// Threads: a pure function. Lifetime: nothing is kept.
#pragma once

#include <cstdint>

namespace lm {

/// count x 10^unit nanoseconds; 0 for a unit above 1 s.
constexpr std::int64_t unitNs(std::uint32_t count, unsigned unit) {
    if (unit > 9) return 0;
    std::int64_t result = count;
    for (unsigned i = 0; i < unit; ++i)
        result *= 10;
    return result;
}

}  // namespace lm
