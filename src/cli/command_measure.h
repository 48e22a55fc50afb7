// The subcommand `measure`: runs DAQ until the time is over, a stop is asked for, nobody reads the output any
// more, or the session has failed.
//
// Threads: the main thread; records are printed meanwhile (see console_printer.h). Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/command.h"
#include "session/measurement_types.h"

namespace lm::cli {

class LiveTable;

/// "measuring 3 signal(s) in 2 DAQ list(s), estimated bus load 1.5 % ... - Ctrl-C to stop".
std::string startLine(const session::PlanSummary& summary, const std::string& recordDirectory);

/// The line that says which events the load of the start line does not count; empty when there are none.
std::string outsideLoadLine(const session::PlanSummary& summary);

/// The counters of the statistics line, without its newline.
std::string statisticsLine(double seconds, const session::MeasurementStats& stats);

/// The line that says of which events "missed cycles" counts nothing; empty when there are none.
std::string uncheckedLine(const session::PlanSummary& summary);

/// Every loss that the statistics line does not name ("unknown DTOs 3, UDP counter gaps 1"); empty when there
/// was none.
std::string otherLosses(const session::MeasurementStats& stats);

/// A line for each DAQ list that gave no record, then why, when that is known; without newlines.
std::vector<std::string> silentLists(const session::MeasurementStats& stats);

/// Every loss that either of them names, empty when there was none.
std::string lossesInWords(const session::MeasurementStats& stats);

/// Whether something of `failOn` ("losses", "outage", "empty") happened.
bool failsOn(const std::vector<std::string>& failOn, const session::MeasurementStats& stats);

/// What is told instead of the statistics line when the ECU did not confirm the stop: the records, and every
/// count of that line that is not zero.
std::string countsWithoutStop(const session::MeasurementStats& stats);

class MeasureCommand final : public ICommand {
  public:
    struct Options {
        std::vector<std::string> signals;
        std::vector<std::string> groups;
        std::vector<std::string> functions;
        std::optional<std::string> signalsFrom;  ///< a file that names more of them
        std::optional<std::string> event;
        double durationSeconds = 0;
        std::string recordDirectory;
        std::optional<std::uint32_t> printEvery;  ///< none: 100, as JSON 1
        bool exact = false;
        bool table = false;
        std::vector<std::string> failOn;  ///< of "losses", "outage", "empty"
    };

    void addOptions(OptionSet& options) override;
    void overrule(session::SessionConfig& config) const override;
    Result<void> prepare(Form form) override;
    session::SessionOptions sessionOptions() const override {
        return {.digest = !options_.recordDirectory.empty()};
    }
    int run(Workplace& place) override;
    const Options& options() const { return options_; }

  private:
    Result<session::PlanSummary> start(Workplace& place, LiveTable* table) const;
    int finish(Workplace& place, const session::PlanSummary& summary, double seconds) const;

    Options options_;
    bool recordsNowhere_ = false;  ///< -r was given, and is empty
};

}  // namespace lm::cli
