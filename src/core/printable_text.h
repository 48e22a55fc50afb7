// Texts of A2L files, recordings and ECUs, safe to show: none of them steers the terminal.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace lm {

/// The text with every byte that is neither printable UTF-8 nor TAB as \xNN; C1 control characters count as
/// not printable.
std::string printableText(std::string_view bytes);

/// A command with its arguments as they are typed in a shell: quoted where that is needed, and printable.
std::string commandText(std::span<const std::string> words);

/// The length that the first byte of a UTF-8 sequence announces; 1 for a byte that begins none.
std::size_t utf8LengthBehind(char first);

}  // namespace lm
