// The texts that one A2L description is made of: the file itself and what it includes. Lines are numbered
// through, in the order of reading; a number tells the file and its line there.
//
// Threads: one at a time. Lifetime: SourceLines owns its names. A text that enter() gave lives as long as the
// SourceTexts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"

namespace lm::a2l {

class SourceLines {
  public:
    /// From `line` on, lines are those of `file` (empty: of the text itself) from `lineThere` on. `line`
    /// never falls from call to call.
    void begin(std::uint32_t line, std::string file, std::uint32_t lineThere);

    /// "line 7"; in an included file "sub/part.a2l line 7".
    std::string where(std::uint32_t line) const;

  private:
    struct Part {
        std::uint32_t line;
        std::uint32_t lineThere;
        std::string file;
    };
    const Part* partOf(std::uint32_t line) const;

    std::vector<Part> parts_;  // none: one text
};

class SourceTexts {
  public:
    struct Source {
        std::string_view text;  ///< UTF-8
        std::string file;       ///< as messages name it
    };

    SourceTexts() = default;
    SourceTexts(const SourceTexts&) = delete;
    SourceTexts& operator=(const SourceTexts&) = delete;
    virtual ~SourceTexts() = default;

    /// The text that goes on in place of `/include name`. The error says why there is none, not where.
    virtual Result<Source> enter(std::string_view name) = 0;
    /// The end of the text that was entered last and not left yet.
    virtual void leave() = 0;

    SourceLines lines;
};

}  // namespace lm::a2l
