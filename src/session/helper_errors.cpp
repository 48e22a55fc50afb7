#include "session/helper_errors.h"

#include <algorithm>

#include <spdlog/fmt/fmt.h>

#include "core/printable_text.h"
#include "core/text.h"

namespace lm::session {
namespace {

constexpr std::string_view kHidden = "[hidden]";
constexpr std::size_t kMostLines = 5;
constexpr std::size_t kLongestLine = 200;

std::size_t behindSeparators(std::string_view text, std::size_t at) {
    for (;;) {
        at = std::min(text.find_first_not_of(" \t\r\n,;:-_.(){}[]", at), text.size());
        const std::string_view mark = text.substr(at, 2);
        if (mark != "0x" && mark != "0X" && mark != "\\x") return at;
        at += mark.size();
    }
}

/// How many digits show the byte: two, or one for what has no first one; 0 when it is another.
std::size_t digitsOf(std::uint8_t byte, std::string_view text, bool mayBeOne) {
    const auto first = text.empty() ? std::nullopt : hexDigit(text[0]);
    if (!first) return 0;
    const auto second = text.size() < 2 ? std::nullopt : hexDigit(text[1]);
    if (second) return (*first << 4U | *second) == byte ? 2 : 0;
    return mayBeOne && *first == byte ? 1 : 0;
}

/// The length of the secret at the beginning of the text; 0 when it is not there.
std::size_t lengthOf(const Secret& secret, std::string_view text) {
    std::size_t at = 0;
    for (std::size_t i = 0; i < secret.size(); ++i) {
        if (i != 0) at = behindSeparators(text, at);
        const std::size_t digits = digitsOf(secret[i], text.substr(at), secret.size() > 1);
        if (digits == 0) return 0;
        at += digits;
    }
    return at;
}

}  // namespace

std::string withoutSecrets(std::string_view text, std::span<const Secret> secrets) {
    std::string shown;
    while (!text.empty()) {
        std::size_t hidden = 0;
        for (const Secret& secret : secrets)
            hidden = std::max(hidden, lengthOf(secret, text));
        if (hidden == 0) {
            shown += text.front();
        } else {
            shown += kHidden;
        }
        text.remove_prefix(std::max<std::size_t>(hidden, 1));
    }
    return shown;
}

std::vector<std::string> linesToShow(std::string_view text) {
    std::vector<std::string> lines;
    std::size_t leftOut = 0;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (line.empty()) continue;
        // The last line takes the place of the one before it.
        if (lines.size() == kMostLines) {
            lines.pop_back();
            ++leftOut;
        }
        const bool isLong = line.size() > kLongestLine;
        lines.push_back(printableText(line.substr(0, kLongestLine)) + (isLong ? "..." : ""));
    }
    if (leftOut != 0) lines.insert(lines.end() - 1, fmt::format("({} line(s) are left out)", leftOut));
    return lines;
}

}  // namespace lm::session
