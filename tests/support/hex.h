// Bytes from hexadecimal text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lm::test {

/// "FF 05", the spaces where they please.
inline std::vector<std::uint8_t> hex(std::string text) {
    std::erase(text, ' ');
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16)));
    return bytes;
}

}  // namespace lm::test
