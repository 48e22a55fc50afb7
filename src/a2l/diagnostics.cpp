#include "a2l/diagnostics.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace lm::a2l {

void Diagnostics::skipped(std::string_view kind, std::string_view name, std::uint32_t line,
                          std::string_view reason) {
    std::string text = name.empty() ? fmt::format("skipped: {} (line {}): {}", kind, line, reason)
                                    : fmt::format("skipped: {} '{}' (line {}): {}", kind, name, line, reason);
    entries_.push_back({line, std::move(text)});
}

std::vector<std::string> Diagnostics::take() {
    std::stable_sort(entries_.begin(), entries_.end(),
                     [](const Entry& a, const Entry& b) { return a.line < b.line; });
    std::vector<std::string> texts;
    texts.reserve(entries_.size());
    for (Entry& entry : entries_)
        texts.push_back(std::move(entry.text));
    entries_.clear();
    return texts;
}

void LeftOutKinds::add(std::string_view kind) {
    const auto found = std::find_if(counts_.begin(), counts_.end(),
                                    [kind](const auto& count) { return count.first == kind; });
    if (found == counts_.end()) {
        counts_.emplace_back(kind, 1);
    } else {
        ++found->second;
    }
}

std::string LeftOutKinds::text() const {
    if (counts_.empty()) return {};
    std::string text;
    for (const auto& [kind, count] : counts_)
        text += fmt::format("{} {} {}", text.empty() ? "left out:" : ",", count, kind);
    return text + " (not read by this version)";
}

}  // namespace lm::a2l
