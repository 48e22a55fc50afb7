#include "xcp/text_lines.h"

#include <algorithm>

#include "core/printable_text.h"

namespace lm::xcp {
namespace {

/// How many bytes at the end of a text begin a sequence that is not complete.
std::size_t openSequence(std::string_view text) {
    for (std::size_t back = 1; back <= std::min<std::size_t>(3, text.size()); ++back) {
        const char byte = text[text.size() - back];
        if ((static_cast<std::uint8_t>(byte) & 0xC0U) == 0x80) continue;
        return utf8LengthBehind(byte) > back ? back : 0;
    }
    return 0;
}

}  // namespace

void TextLines::add(const std::uint8_t* data, std::size_t length, Clock::time_point now) {
    std::string_view text(reinterpret_cast<const char*>(data), length);
    last_ = now;
    while (!text.empty()) {
        const std::size_t lineEnd = text.find('\n');
        const std::size_t taken = std::min({lineEnd, text.size(), kLongestPart - open_.size()});
        open_ += text.substr(0, taken);
        text.remove_prefix(taken);
        if (taken == lineEnd) {
            endLine();
            text.remove_prefix(1);
        } else if (open_.size() == kLongestPart) {
            cutLine();
        }
    }
}

void TextLines::handOnWhenSilent(Clock::time_point now) {
    if (!open_.empty() && now - last_ > kSilence) handOn();
}

void TextLines::handOn() {
    givePart(open_);
    open_.clear();
}

void TextLines::endLine() {
    // The end of a line that was handed on already is not a line of its own.
    while (!open_.empty() && open_.back() == '\r') {
        open_.pop_back();
    }
    if (!open_.empty() || !partGiven_) receiver_(printableText(open_));
    open_.clear();
    partGiven_ = false;
}

/// A character is not cut in two: its begin waits for the rest.
void TextLines::cutLine() {
    const std::size_t cut = open_.size() - openSequence(open_);
    givePart(std::string_view(open_).substr(0, cut));
    open_.erase(0, cut);
}

void TextLines::givePart(std::string_view part) {
    while (!part.empty() && part.back() == '\r') {
        part.remove_suffix(1);
    }
    if (part.empty()) return;
    receiver_(printableText(part));
    partGiven_ = true;
}

}  // namespace lm::xcp
