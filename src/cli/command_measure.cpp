#include "cli/command_measure.h"

#include <unistd.h>
#include <utility>

#include "cli/message_output.h"
#include "cli/options.h"
#include "cli/signal_list.h"
#include "cli/stop_signal.h"
#include "cli/terminal_screen.h"
#include "cli/watched_run.h"
#include "core/log.h"

namespace lm::cli {
namespace {

std::string notEmpty(const std::string& text) {
    return text.empty() ? "is empty" : "";
}

}  // namespace

void MeasureCommand::addOptions(OptionSet& options) {
    options.add("-s,--signal", options_.signals, "NAME or NAME@EVENT (default: configuration)");
    addFolders(options, options_.groups, options_.functions);
    options.add("--signals-from", options_.signalsFrom, "File with more signals, one a line");
    options
        .add("--event", options_.event,
             "Event of names without one: its number, its name, or auto (the A2L names it)")
        .check(notEmpty);
    addDuration(options, options_.durationSeconds, "Seconds (0 = until Ctrl-C)");
    options_.recording.addOptions(options);
    options.add("-p,--print-every", options_.printEvery, "Print every n-th record per DAQ list (0 = none)")
        .showDefault("100");
    options.addFlag("--table", options_.table, "Show all signals in place, in a terminal");
    addExact(options, options_.exact);
    options.add("--log-every", options_.logEvery,
                "Print a line each time so much has passed, as 1min: records, losses, room on the disk");
    options
        .add("--fail-on", options_.failOn,
             "losses,outage,empty,identity: exit code 3 when samples were lost, the connection was lost, a "
             "DAQ list gave no record or no trigger came, or the ECU's EPK is not that of the A2L")
        .oneEach(',')
        .oneOf({"losses", "outage", "empty", "identity"});
    options.addFlag("--stdin", options_.takesLines,
                    "Take lines from standard input meanwhile: set NAME=VALUE, mark TEXT, record on, record "
                    "off, quit; -r is then the folder of the recordings");
    addReadOnly(options, options_.readOnly);
    addWatchOptions(options, options_.watch);
    addReport(options, options_.report);
}

Result<void> MeasureCommand::prepare(Form form) {
    if (options_.report) {
        auto report = TestReport::create(*options_.report, "measure");
        if (!report) return report.error();
        report_ = std::move(report).value();
        // Whatever ends the program from now on, no older report is taken for this one.
        auto written = writeReport("", 0, 1, kNoResult, nullptr);
        if (!written) return written;
    }
    if (options_.table) {
        if (form != Form::text)
            return Error{ErrorCode::invalidArgument, "--table and --json exclude each other"};
        if (auto able = TerminalScreen::check(STDOUT_FILENO); !able) return able;
    }
    if (options_.table && options_.takesLines)
        return Error{ErrorCode::invalidArgument, "--table and --stdin exclude each other"};
    const auto logInterval = this->logInterval();
    if (!logInterval) return logInterval.error();
    if (auto able = options_.recording.check(); !able) return able;
    if (options_.signalsFrom) {
        auto names = readSignalList(*options_.signalsFrom, stopToken());
        if (!names) return names.error();
        options_.signals.insert(options_.signals.end(), names.value().begin(), names.value().end());
    }
    auto watched = parseWatchOptions(options_.watch, options_.recording.directory(), stopToken());
    if (!watched) return watched.error();
    watchPlan_ = std::move(watched).value();
    if (watchPlan_.recordsTakes() && !options_.recording.takesAreEnough())
        return Error{ErrorCode::invalidArgument,
                     "--start-when and --stop-when record takes: --split, --keep, --name and --export do not "
                     "go with them (`export` does it afterwards)"};
    log_.emplace(logInterval.value(), options_.recording.directory());
    log_->waitForEcu();
    return {};
}

Result<std::chrono::nanoseconds> MeasureCommand::logInterval() const {
    if (!options_.logEvery) return std::chrono::nanoseconds(0);
    if (options_.table)
        return Error{ErrorCode::invalidArgument, "--table and --log-every exclude each other"};
    auto interval = parseTime("--log-every", *options_.logEvery);
    constexpr std::chrono::seconds kShortest{1};
    if (interval && interval.value() < kShortest)
        return Error{ErrorCode::invalidArgument, "--log-every: lines come each second (1s) at most"};
    return interval;
}

Result<void> MeasureCommand::writeReport(const std::string& ecu, double seconds, int exitCode,
                                         std::string reason, const WatchedRun* watched) const {
    if (!report_) return {};
    using Outcome = TestCase::Outcome;
    TestCase run{.name = "measurement", .message = std::move(reason), .seconds = seconds};
    if (!run.message.empty()) run.outcome = exitCode == 3 ? Outcome::failed : Outcome::broken;
    run.details = run.message;
    std::vector<TestCase> cases{std::move(run)};
    if (watched != nullptr) watched->addCases(seconds, cases);
    return report_->write(ecu, seconds, cases);
}

void MeasureCommand::notConnected(const Error& error) {
    if (auto written = writeReport("", 0, 1, "connect: " + error.text(), nullptr); !written)
        log::error("measure: {}", written.error().text());
}

void MeasureCommand::overrule(session::SessionConfig& config) const {
    if (options_.event)
        config.daq.defaultEvent = session::parseDefaultEvent(*options_.event, config.daq.defaultEvent);
    config.display.exact = config.display.exact || options_.exact;
}

}  // namespace lm::cli
