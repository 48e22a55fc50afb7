// What was left out or odd while reading a description, with the lines, in any order.
//
// Threads: one at a time. Lifetime: owns its texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lm::a2l {

class Diagnostics {
  public:
    /// "skipped: KIND 'NAME' (line N): REASON"; without a name "skipped: KIND (line N): REASON".
    void skipped(std::string_view kind, std::string_view name, std::uint32_t line, std::string_view reason);

    /// What is used all the same; `text` tells the line.
    void odd(std::uint32_t line, std::string text) { entries_.push_back({line, std::move(text)}); }

    /// The texts, ordered by line.
    std::vector<std::string> take();

  private:
    struct Entry {
        std::uint32_t line;
        std::string text;
    };
    std::vector<Entry> entries_;
};

/// How many objects were left out because nothing reads their kind.
class LeftOutKinds {
  public:
    void add(std::string_view kind);
    /// "left out: 12 INSTANCE, 1 BLOB (not read by this version)", empty for none.
    std::string text() const;

  private:
    std::vector<std::pair<std::string, std::size_t>> counts_;  ///< in the order of their first objects
};

}  // namespace lm::a2l
