#include "core/printable_text.h"

#include <algorithm>
#include <cstdint>

#include <spdlog/fmt/fmt.h>

#include "core/text.h"

namespace lm {
namespace {

bool isPrintable(std::string_view sequence) {
    const auto first = static_cast<std::uint8_t>(sequence.front());
    if (sequence.size() == 1) return first == '\t' || (first >= 0x20 && first < 0x7F);
    const bool c1Control = first == 0xC2 && static_cast<std::uint8_t>(sequence[1]) < 0xA0;
    return !c1Control && isValidUtf8(sequence);
}

}  // namespace

std::size_t utf8LengthBehind(char first) {
    const auto byte = static_cast<std::uint8_t>(first);
    if (byte >= 0xF8) return 1;
    if (byte >= 0xF0) return 4;
    if (byte >= 0xE0) return 3;
    return byte >= 0xC0 ? 2 : 1;
}

std::string printableText(std::string_view bytes) {
    std::string text;
    text.reserve(bytes.size());
    while (!bytes.empty()) {
        const std::string_view sequence = bytes.substr(0, utf8LengthBehind(bytes.front()));
        const bool printable = isPrintable(sequence);
        const std::size_t taken = printable ? sequence.size() : 1;
        if (printable) {
            text += sequence;
        } else {
            text += fmt::format("\\x{:02X}", static_cast<std::uint8_t>(bytes.front()));
        }
        bytes.remove_prefix(taken);
    }
    return text;
}

std::string commandText(std::span<const std::string> words) {
    constexpr std::string_view kPlain = "%+,-./:=@_";
    const auto isPlain = [&](char c) {
        const auto small = static_cast<char>(static_cast<unsigned char>(c) | 0x20U);
        return isDigit(c) || (small >= 'a' && small <= 'z') || kPlain.find(c) != std::string_view::npos;
    };
    std::string text;
    for (const std::string& word : words) {
        if (!text.empty()) text += ' ';
        if (!word.empty() && std::all_of(word.begin(), word.end(), isPlain)) {
            text += word;
            continue;
        }
        text += '\'';
        for (const char c : word)
            text += c == '\'' ? "'\\''" : std::string(1, c);
        text += '\'';
    }
    return printableText(text);
}

}  // namespace lm
