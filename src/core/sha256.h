// SHA-256 of bytes in memory (FIPS 180-4): tells whether two files are the same.
//
// Threads: a pure function. Lifetime: nothing is kept.
#pragma once

#include <string>
#include <string_view>

namespace lm {

/// 64 lower-case hexadecimal digits.
std::string sha256Hex(std::string_view bytes);

}  // namespace lm
