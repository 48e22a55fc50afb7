// The subcommand `console`: shows the text of an ECU on a serial line as it comes, and sends the lines of
// standard input. The settings of the terminal are never touched: there is nothing to restore.
//
// Threads: the main thread; a LineKeeper opens the line, a detached thread reads standard input. Lifetime:
// the reader shares what it needs and may outlive the command.
#pragma once

#include <string>

#include "cli/command.h"
#include "session/console_log.h"
#include "session/session.h"

namespace lm::cli {

/// "HH:MM:SS.mmm  TEXT\n" in local time, with "> " before a sent line and "-- " before a notice.
std::string consoleLine(const session::ConsoleLine& line);

/// Runs until stopRequested(), no one reads the output any more, so many seconds after the line was first
/// opened (or could not be), or with a duration of 0 until the end of input. Closes the session.
class ConsoleCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::holds; }
    void addOptions(OptionSet& options) override;
    session::SessionOptions sessionOptions() const override {
        return {.otherSoftware = session::OtherSoftware::warned};
    }
    int run(Workplace& place) override;

  private:
    double durationSeconds_ = 0;
    bool readOnly_ = false;  ///< for those who come through this program
};

}  // namespace lm::cli
