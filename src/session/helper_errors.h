// What a key helper says on standard error, made fit to show: without the seed and the key, and not too much.
//
// Threads: pure functions. Lifetime: results own their text.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lm::session {

using Secret = std::vector<std::uint8_t>;

/// The text with each secret left out that stands there in hexadecimal: in capital or small letters, its
/// bytes side by side or with blanks, line ends, signs such as ",:-" and "0x" between them.
std::string withoutSecrets(std::string_view text, std::span<const Secret> secrets);

/// The lines to show, the last of which says why a program failed; one tells how many are left out.
std::vector<std::string> linesToShow(std::string_view text);

}  // namespace lm::session
