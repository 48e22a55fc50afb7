// Words that are numbers: their value, and the exact value of integers.
//
// Threads: pure functions. Lifetime: keeps nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace lm::a2l {

/// The value of a word that is a number as a whole: an optional sign, then 0x and hexadecimal digits or a
/// decimal number beginning with a digit or with a point and a digit. Infinite beyond the range of a double.
/// `word` is not empty.
std::optional<double> numberValue(std::string_view word);

/// The value of a number word that is a plain unsigned integer (digits, or 0x and digits, with an optional
/// plus) without the detour over a double; none for other words and beyond 64 bits.
std::optional<std::uint64_t> plainUnsigned(std::string_view word);

}  // namespace lm::a2l
