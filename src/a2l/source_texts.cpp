#include "a2l/source_texts.h"

#include <algorithm>
#include <utility>

namespace lm::a2l {

void SourceLines::begin(std::uint32_t line, std::string file, std::uint32_t lineThere) {
    parts_.push_back({line, lineThere, std::move(file)});
}

const SourceLines::Part* SourceLines::partOf(std::uint32_t line) const {
    const auto after = std::upper_bound(parts_.begin(), parts_.end(), line,
                                        [](std::uint32_t l, const Part& part) { return l < part.line; });
    return after == parts_.begin() ? nullptr : &*(after - 1);
}

std::string SourceLines::where(std::uint32_t line) const {
    const Part* const part = partOf(line);
    if (part == nullptr) return "line " + std::to_string(line);
    const std::string text = "line " + std::to_string(line - part->line + part->lineThere);
    return part->file.empty() ? text : part->file + " " + text;
}

}  // namespace lm::a2l
