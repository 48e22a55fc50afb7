// The subcommand `measure`: runs DAQ until the time is over, a stop is asked for, nobody reads the output any
// more, or the session has failed.
//
// Threads: the main thread; records are printed meanwhile (see console_printer.h). Lifetime: nothing is kept.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/recording_care.h"
#include "cli/recording_options.h"
#include "cli/run_log.h"
#include "cli/test_report.h"
#include "cli/watch_options.h"
#include "session/measurement_types.h"

namespace lm::cli {

class LiveTable;
class MeasureInput;
class WatchedRun;

class MeasureCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::holds; }
    struct Options {
        std::vector<std::string> signals;
        std::vector<std::string> groups;
        std::vector<std::string> functions;
        std::optional<std::string> signalsFrom;  ///< a file that names more of them
        std::optional<std::string> event;
        double durationSeconds = 0;
        RecordingOptions recording;
        std::optional<std::uint32_t> printEvery;  ///< none: 100, as JSON 1
        bool exact = false;
        bool table = false;
        std::optional<std::string> logEvery;
        std::vector<std::string> failOn;  ///< of "losses", "outage", "empty"
        WatchOptions watch;
        std::optional<std::string> report;
        bool takesLines = false;  ///< from standard input
        bool readOnly = false;    ///< for those who come through this program
    };

    void addOptions(OptionSet& options) override;
    void overrule(session::SessionConfig& config) const override;
    Result<void> prepare(Form form) override;
    /// Lines of standard input go to one ECU.
    bool takesSeveralEcus() const override { return !options_.takesLines; }
    session::SessionOptions sessionOptions() const override {
        return {.digest = options_.recording.records()};
    }
    void notConnected(const Error& error) override;
    int run(Workplace& place) override;
    const Options& options() const { return options_; }

  private:
    /// The exit code without verdicts, and why it is not 0.
    struct Ending {
        int exitCode = 0;
        std::string reason;
    };

    int runOnSeveral(Workplace& place);
    int measure(Workplace& place);
    Result<void> addParameters(Workplace& place, storage::RecordingPlace& recording) const;
    Result<storage::RecordingPlace> recordingPlace(Workplace& place, RecordingCare& care) const;
    Result<storage::RecordingPlace> nextPlace(Workplace& place, RecordingCare& care, bool takes) const;
    Result<session::PlanSummary> start(Workplace& place, LiveTable* table, WatchedRun* watched,
                                       RecordingCare& care) const;
    Result<std::chrono::nanoseconds> logInterval() const;
    int runWatched(Workplace& place, WatchedRun* watched);
    int finish(Workplace& place, const session::PlanSummary& summary, double seconds, WatchedRun* watched,
               const RecordingCare& care) const;
    int judge(Workplace& place, double seconds, const Ending& ending, const session::MeasurementStats& stats,
              const WatchedRun* watched) const;
    int failStart(Workplace& place, const Error& error) const;
    Result<void> writeReport(const std::string& ecu, double seconds, int exitCode, std::string reason,
                             const WatchedRun* watched) const;

    Options options_;
    WatchPlan watchPlan_;
    std::optional<TestReport> report_;
    std::optional<RunLog> log_;  ///< since prepare()
};

}  // namespace lm::cli
