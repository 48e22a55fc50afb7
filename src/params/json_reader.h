// Takes JSON apart, one value after the other, for files that are large and whose every mistake is to be
// told with its line: no document is built, and a fault ends the reading.
//
// Threads: one at a time. Lifetime: the text is borrowed and must outlive the reader and the texts without
// escapes that it gives.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "core/result.h"

namespace lm::params {

/// After the first fault every call fails or gives nothing; error() says what it was.
class JsonReader {
  public:
    explicit JsonReader(std::string_view text) : text_(text) {}

    /// The line of what is read next, from 1.
    std::size_t line();
    bool ok() const { return ok_; }
    const Error& error() const { return error_; }
    /// Stops with "line N: WHAT".
    void fail(const std::string& what);

    /// What comes next: one of { [ " t f n 0 (a number), or 0 for the end of the text.
    char peek();
    void begin(char bracket);
    /// Goes to the next member or element: false at its end, which it takes. `isFirst` belongs to the caller
    /// and begins as true.
    bool next(char closing, bool& isFirst);
    /// The name of a member and its colon.
    std::string_view key();
    /// UTF-8; valid until the next text is read.
    std::string_view text();
    /// As it stands there.
    std::string_view number();
    void null() { word("null"); }
    /// Anything, with all that is in it.
    void skip();
    /// Nothing but blanks may be left.
    void end();

  private:
    void blanks();
    void word(std::string_view wanted);
    void digits();
    std::string_view escaped(std::size_t begin);
    void escape();
    unsigned hexQuad();
    void skipNested(std::size_t depth);

    std::string_view text_;
    std::size_t at_ = 0;
    // Counted up to a place before `at_`, when someone asks.
    std::size_t countedTo_ = 0;
    std::size_t line_ = 1;
    bool ok_ = true;
    Error error_;
    std::string unescaped_;
};

}  // namespace lm::params
