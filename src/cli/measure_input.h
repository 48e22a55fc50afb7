// The lines that `measure --stdin` takes from standard input while it measures: `set NAME=VALUE`, `mark
// TEXT`, `record on`, `record off`, `quit`. The end of the lines ends nothing.
//
// Threads: the main thread. Lifetime: the workplace is borrowed.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "cli/command.h"
#include "cli/input_lines.h"
#include "storage/write/recorder.h"

namespace lm::cli {

class MeasureInput {
  public:
    /// Where a recording that is to begin goes. Error: why there can be none.
    using NextPlace = std::function<Result<storage::RecordingPlace>()>;

    MeasureInput(Workplace& place, NextPlace nextPlace);

    /// To be polled for reading; -1 once the lines are over.
    int descriptor() const { return over_ ? -1 : 0; }
    /// When there is something to read: does what the lines say.
    void take();
    bool quitAskedFor() const { return quit_; }

  private:
    bool answer(const std::string& line);
    bool perform(std::string_view line, Results& results);
    bool assign(std::string_view assignment, Results& results);
    bool mark(std::string_view text, Results& results);
    bool record(std::string_view word, Results& results);

    Workplace& place_;
    const NextPlace nextPlace_;
    InputLines lines_;
    std::string told_;  ///< what the answer says as text
    bool over_ = false;
    bool quit_ = false;
};

}  // namespace lm::cli
