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
#include "cli/several_ecus.h"
#include "cli/sharing.h"
#include "cli/stop_signal.h"
#include "cli/watched_run.h"
#include "core/log.h"
#include "session/joint_measurement.h"
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
double measureUntilEnd(double duration, const session::IMeasured& session, const Console& console,
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

void writeEcus(JsonWriter& json, const std::vector<session::IMeasured::Member>& members) {
    if (members.front().name == nullptr) return writeEcu(json, *members.front().session);
    json.key("ecus").beginArray();
    for (const session::IMeasured::Member& member : members) {
        json.beginObject();
        writeEcuMembers(json, *member.session);
        json.endObject();
    }
    json.endArray();
}

/// Members of the first JSON line: the ECUs and the DAQ lists.
std::string startMembers(const session::IMeasured& measured, const session::MeasurementPlan& plan) {
    std::string text = ",";  // they stand behind others
    JsonWriter json(text);
    const auto members = measured.members();
    writeEcus(json, members);
    json.key("groups").beginArray();
    for (std::size_t i = 0; i < plan.daq.lists.size(); ++i) {
        const xcp::DaqList& list = plan.daq.lists[i];
        const bool isOfSeveral = !plan.listEcus.empty();
        const auto member = std::find_if(members.begin(), members.end(), [&](const auto& one) {
            return !isOfSeveral || *one.name == plan.listEcus[i];
        });
        const auto& capabilities = member->session->daqCapabilities();
        const xcp::EventChannel* event = capabilities ? capabilities->findEvent(list.eventChannel) : nullptr;
        json.beginObject();
        json.member("group", i);
        if (isOfSeveral) json.member("ecu", plan.listEcus[i]);
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

/// Snapshots, which are read from each ECU before anything is measured.
Result<void> MeasureCommand::addParameters(Workplace& place, storage::RecordingPlace& recording) const {
    const auto add = [&](std::string file) -> Result<void> {
        auto parameters = snapshotText(place);
        if (!parameters) return parameters.error();
        recording.companions.push_back({std::move(file), std::move(parameters).value()});
        return {};
    };
    if (place.ecus == nullptr) return add(std::string(storage::kParametersFileName));
    Result<void> added;
    for (const std::size_t ecu : place.ecus->all()) {
        place.session = &place.ecus->at(ecu);
        if (!added || place.session->state() != session::SessionState::connected) continue;
        std::string file(storage::kParametersFileName);
        added = add(file.insert(file.rfind('.'), "_" + place.ecus->name(ecu)));
    }
    place.session = nullptr;
    return added;
}

Result<storage::RecordingPlace> MeasureCommand::recordingPlace(Workplace& place, RecordingCare& care) const {
    auto recording = options_.recording.place();
    if (!recording) return recording;
    if (options_.recording.caresForRecordings()) recording.value().care = &care;
    const bool isFolder = options_.takesLines && options_.recording.records() && !watchPlan_.recordsTakes();
    if (isFolder && recording.value().name.empty()) recording.value().name = "{time}_{n}";
    if (!options_.recording.withParameters()) return recording;
    if (auto added = addParameters(place, recording.value()); !added) return added.error();
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
    session::IMeasured& session = *place.measured;
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
        const auto style = numberStyle(place);
        console.setLines(isJson ? jsonLines(plan, style, objectStart("measure"), startMembers(session, plan))
                                : textLines(plan, style),
                         plan.daq.lists.size());
    };
    if (watched != nullptr) watched->joinTo(measurement);
    return session.startMeasurement(measurement);
}

int MeasureCommand::run(Workplace& place) {
    return place.ecus != nullptr ? runOnSeveral(place) : measure(place);
}

/// Each that is to be measured must be there at the start: what a recording holds is settled then.
int MeasureCommand::runOnSeveral(Workplace& place) {
    std::vector<const watch::Expression*> watched;
    for (const auto* const list : {&watchPlan_.assertions, &watchPlan_.starts, &watchPlan_.stops}) {
        for (const WantedExpression& wanted : *list)
            watched.push_back(&wanted.expression);
    }
    const bool configured = options_.groups.empty() && options_.functions.empty();
    const auto errors = openEcus(place, ecusToMeasure(*place.ecus, options_.signals, configured, watched));
    for (const std::optional<Error>& error : errors) {
        if (!error) continue;
        notConnected(*error);
        return 1;
    }
    session::JointMeasurement joint(*place.ecus);
    joint.setListener(place.console);
    place.measured = &joint;
    const int exitCode = measure(place);
    place.measured = nullptr;
    return exitCode;
}

int MeasureCommand::measure(Workplace& place) {
    session::IMeasured& session = *place.measured;
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
    session::IMeasured& session = *place.measured;
    std::optional<LiveTable> table;
    if (options_.table) table.emplace(numberStyle(place), options_.recording.directory());
    LiveTable* const shown = table ? &*table : nullptr;
    RecordingCare care(options_.recording.exportAs());
    const auto summary = start(place, shown, watched, care);
    if (!summary) return failStart(place, summary.error());
    const bool takes = watched != nullptr && watched->recordsTakes();
    printMessage(startLine(summary.value(), takes ? "" : options_.recording.directory()) + "\n" +
                 outsideLoadLine(summary.value()) + (watched != nullptr ? watched->startLine() : ""));
    if (table) table->begin();
    startSharing(place, options_.readOnly);
    std::optional<MeasureInput> input;
    if (options_.takesLines) input.emplace(place, [&] { return nextPlace(place, care, takes); });
    const double seconds = measureUntilEnd(options_.durationSeconds, session, *place.console, shown,
                                           input ? &*input : nullptr, watched, *log_);
    stopSharing(place);
    log_->end();
    if (table) table->finish();
    return finish(place, summary.value(), seconds, watched, care);
}

}  // namespace lm::cli
