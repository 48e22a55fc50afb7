// `measure` from the recording's place to the last moment of the measurement.
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <optional>
#include <poll.h>
#include <unistd.h>
#include <utility>

#include "cli/command_info.h"
#include "cli/command_measure.h"
#include "cli/command_snapshot.h"
#include "cli/console_printer.h"
#include "cli/live_table.h"
#include "cli/measure_input.h"
#include "cli/measurement_counts.h"
#include "cli/message_output.h"
#include "cli/options.h"
#include "cli/output.h"
#include "cli/sharing.h"
#include "cli/stop_signal.h"
#include "cli/watched_run.h"
#include "core/log.h"
#include "session/measurement_plan.h"

namespace lm::cli {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// One look at everything that ends a measurement from outside; waits up to 50 ms for it to happen.
bool stopAskedFor(const Console& console, LiveTable* table, MeasureInput* input, Seconds left) {
    const double limitMs = std::clamp(std::ceil(left.count() * 1000), 0.0, 50.0);
    std::array<pollfd, 4> waits = {pollfd{stopToken().descriptor(), POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0},
                                   pollfd{table != nullptr ? table->keyDescriptor() : -1, POLLIN, 0},
                                   pollfd{input != nullptr ? input->descriptor() : -1, POLLIN, 0}};
    const int ready = ::poll(waits.data(), waits.size(), static_cast<int>(limitMs));
    if (ready > 0 && waits[2].revents != 0) table->takeKeys();
    if (ready > 0 && waits[3].revents != 0) input->take();
    const bool readerGone = ready > 0 && (waits[1].revents & (POLLERR | POLLHUP)) != 0;
    return stopRequested() || readerGone || console.failure() != 0 ||
           (input != nullptr && input->quitAskedFor()) || (table != nullptr && table->failure() != 0);
}

// Returns the seconds measured.
double measureUntilEnd(double duration, const session::Session& session, const Console& console,
                       LiveTable* table, MeasureInput* input, WatchedRun* watched, RunLog& runLog) {
    const auto start = Clock::now();
    for (;;) {
        const Seconds elapsed = Clock::now() - start;
        runLog.look({elapsed.count(), session.state(), [&session] { return session.statistics(); }});
        if (session.state() == session::SessionState::failed) return elapsed.count();
        if (watched != nullptr && watched->isOver()) return elapsed.count();
        if (duration > 0 && elapsed.count() >= duration) return elapsed.count();
        const Seconds left = duration > 0 ? Seconds(duration) - elapsed : Seconds(1);
        if (table != nullptr) table->update(session, elapsed.count());
        if (stopAskedFor(console, table, input, left)) return Seconds(Clock::now() - start).count();
    }
}

/// Members of the first JSON line: the ECU and the DAQ lists.
std::string startMembers(const session::Session& session, const session::MeasurementPlan& plan) {
    std::string text = ",";  // they stand behind others
    JsonWriter json(text);
    writeEcu(json, session);
    json.key("groups").beginArray();
    for (std::size_t i = 0; i < plan.daq.lists.size(); ++i) {
        const xcp::DaqList& list = plan.daq.lists[i];
        const auto& capabilities = session.daqCapabilities();
        const xcp::EventChannel* event = capabilities ? capabilities->findEvent(list.eventChannel) : nullptr;
        json.beginObject();
        json.member("group", i);
        json.member("event", list.eventChannel);
        json.member("name", event != nullptr ? event->name.c_str() : "");
        json.member("cycleNs", event != nullptr ? session::periodNs(list, *capabilities) : std::uint64_t{0});
        json.member("prescaler", list.prescaler);
        json.endObject();
    }
    json.endArray();
    return text;
}

}  // namespace

/// With the snapshot, which is read from the ECU before anything is measured.
Result<storage::RecordingPlace> MeasureCommand::recordingPlace(Workplace& place, RecordingCare& care) const {
    auto recording = options_.recording.place();
    if (!recording) return recording;
    if (options_.recording.caresForRecordings()) recording.value().care = &care;
    const bool isFolder = options_.takesLines && options_.recording.records() && !watchPlan_.recordsTakes();
    if (isFolder && recording.value().name.empty()) recording.value().name = "{time}_{n}";
    if (!options_.recording.withParameters()) return recording;
    auto parameters = snapshotText(place);
    if (!parameters) return parameters.error();
    recording.value().companions.push_back(
        {std::string(storage::kParametersFileName), std::move(parameters).value()});
    return recording;
}

/// Of a recording that a line of standard input begins.
Result<storage::RecordingPlace> MeasureCommand::nextPlace(Workplace& place, RecordingCare& care,
                                                          bool takes) const {
    if (takes)
        return Error{ErrorCode::unsupported, "the takes of --start-when and --stop-when are the recordings"};
    if (!options_.recording.records())
        return Error{ErrorCode::invalidArgument, "-r FOLDER names no folder for recordings"};
    return recordingPlace(place, care);
}

Result<session::PlanSummary> MeasureCommand::start(Workplace& place, LiveTable* table, WatchedRun* watched,
                                                   RecordingCare& care) const {
    session::Session& session = *place.session;
    Console& console = *place.console;
    const bool isJson = place.results.json() != nullptr;
    auto recording = recordingPlace(place, care);
    if (!recording) return recording.error();
    const std::uint32_t interval = options_.printEvery.value_or(isJson ? 1 : 100);
    if (table == nullptr && (isJson || interval != 0)) {
        if (auto printing = console.startPrinting(interval); !printing) return printing.error();
    }
    session::MeasurementOptions measurement;
    measurement.signals = options_.signals;
    measurement.groups = options_.groups;
    measurement.functions = options_.functions;
    measurement.recording = std::move(recording).value();
    measurement.commandLine = commandLineWords();
    measurement.duration = Seconds(options_.durationSeconds);
    measurement.sink = &console;
    if (table != nullptr) measurement.sink = &table->sink();
    measurement.onPlanned = [&](const session::MeasurementPlan& plan) {
        if (table != nullptr) return table->setPlan(plan);
        const auto style = numberStyle(session.config());
        console.setLines(isJson ? jsonLines(plan, style, objectStart("measure"), startMembers(session, plan))
                                : textLines(plan, style),
                         plan.daq.lists.size());
    };
    if (watched != nullptr) watched->joinTo(measurement);
    return session.startMeasurement(measurement);
}

int MeasureCommand::run(Workplace& place) {
    session::Session& session = *place.session;
    if (options_.recording.recordsNowhere()) {
        log::warn("measure: -r names no directory (a variable that is not set?), nothing is recorded");
    }
    if (watchPlan_.isEmpty()) return runWatched(place, nullptr);
    WatchedRun watched(watchPlan_, session, *place.console);
    if (auto resolved = watched.resolve(); !resolved) return failStart(place, resolved.error());
    const int exitCode = runWatched(place, &watched);
    // What of a measurement that failed still runs may call it.
    if (auto stopped = session.stopMeasurement(); !stopped) place.results.fail("stop", stopped.error());
    return exitCode;
}

int MeasureCommand::runWatched(Workplace& place, WatchedRun* watched) {
    session::Session& session = *place.session;
    std::optional<LiveTable> table;
    if (options_.table) table.emplace(numberStyle(session.config()), options_.recording.directory());
    LiveTable* const shown = table ? &*table : nullptr;
    RecordingCare care(options_.recording.exportAs());
    const auto summary = start(place, shown, watched, care);
    if (!summary) return failStart(place, summary.error());
    const bool takes = watched != nullptr && watched->recordsTakes();
    printMessage(startLine(summary.value(), takes ? "" : options_.recording.directory()) + "\n" +
                 outsideLoadLine(summary.value()) + (watched != nullptr ? watched->startLine() : ""));
    if (table) table->begin();
    place.sharing->start(session, options_.readOnly);
    std::optional<MeasureInput> input;
    if (options_.takesLines) input.emplace(place, [&] { return nextPlace(place, care, takes); });
    const double seconds = measureUntilEnd(options_.durationSeconds, session, *place.console, shown,
                                           input ? &*input : nullptr, watched, *log_);
    place.sharing->stop();
    log_->end();
    if (table) table->finish();
    return finish(place, summary.value(), seconds, watched, care);
}

}  // namespace lm::cli
