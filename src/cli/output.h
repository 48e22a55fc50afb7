// Standard output of the commands that print results (list, info, get, set): one buffer, big writes, and a
// record of what went wrong. Error lines of all commands go through printError.
//
// Threads: one thread; printError from any. Lifetime: the descriptor is borrowed and stays open.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "core/result.h"

namespace lm::cli {

class Output {
  public:
    explicit Output(int descriptor) : descriptor_(descriptor) {}
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// Appends to the buffer; a full buffer (64 KiB) is written. Does nothing after a failed write.
    void append(std::string_view text);
    void append(char c) { append(std::string_view(&c, 1)); }

    /// printf's "%-*s": the printable text, filled up with blanks to `width` bytes.
    void appendPadded(std::string_view text, std::size_t width);

    /// "%-50s %s\n", the line of get and set, printable.
    void appendValueLine(std::string_view name, std::string_view value);

    /// Writes the buffer. False once a write has failed: no one reads any further output.
    bool flush();

    /// Flushes and gives the exit code: 1 with "output: REASON" on standard error after a failed write, else
    /// `exitCode`. A reader that went away is no failure: it had what it wanted. 1 without a word when a stop
    /// request ended the writing.
    int finish(int exitCode);

    /// The same for a reader that may have paused: what it does not take within `limit` is left out.
    int finishWithin(std::chrono::milliseconds limit, int exitCode);

  private:
    const int descriptor_;
    std::string buffer_;
    int failure_ = 0;  ///< errno of the write that failed
};

/// "output: REASON" on standard error, unless the reason is a reader that went away. True when printed.
bool reportOutputFailure(int systemError);

/// "PREFIX: TEXT\n" on standard error, only "TEXT\n" for an empty prefix; then the hint, if there is one.
void printError(std::string_view prefix, const Error& error);

/// "hint: TEXT\n"
std::string hintLine(const Error& error);

}  // namespace lm::cli
