// Numbers as text, quickly and the same in every locale.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lm::exporter {

/// Room that every function here needs at `to`; each returns the end of what it wrote.
inline constexpr std::size_t kNumberWidth = 32;

/// The shortest text that reads back as the same double, as std::to_chars chooses it ("0.1", "1e+06", "inf");
/// "nan" without a sign.
char* writeShortest(char* to, double value);

/// Nanoseconds as seconds, exactly, with as few decimals as that takes: "12.5", "-0.000000001".
char* writeSeconds(char* to, std::int64_t nanoseconds);

}  // namespace lm::exporter
