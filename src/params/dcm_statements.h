// A DCM file as statements: one per line, a keyword and its words. Comments are passed over, but for those
// that name an axis.
//
// Threads: one at a time. Lifetime: borrows the text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"

namespace lm::params {

struct DcmStatement {
    std::size_t line = 0;
    std::string_view keyword = {};  ///< "*SSTX", "*SSTY" for the comments that name an axis
    std::vector<std::string> words = {};
};

class DcmStatements {
  public:
    /// UTF-8.
    explicit DcmStatements(std::string_view text) : rest_(text) {}

    /// None at the end of the text. Error (invalidArgument), without the line: a quote that is not closed.
    Result<std::optional<DcmStatement>> next();
    /// Of the statement that came last, counted from 1.
    std::size_t line() const { return line_; }

  private:
    std::string_view takeLine();

    std::string_view rest_;
    std::size_t line_ = 0;
};

/// The text in quotes, as DcmStatements reads it back when nothing follows it in its line.
std::string dcmQuoted(std::string_view text);

}  // namespace lm::params
