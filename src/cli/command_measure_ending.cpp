// `measure` from the stop to the exit code: what was counted is told, judged and reported.
#include <algorithm>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "cli/command_measure.h"
#include "cli/console_printer.h"
#include "cli/measurement_counts.h"
#include "cli/message_output.h"
#include "cli/options.h"
#include "cli/output.h"
#include "cli/watched_run.h"
#include "core/log.h"

namespace lm::cli {
namespace {

void warnAboutLosses(const session::MeasurementStats& stats, const Console& console) {
    const std::string losses = otherLosses(stats);
    if (!losses.empty()) log::warn("measure: {}", losses);
    for (const std::string& line : silentLists(stats))
        log::warn("measure: {}", line);
    if (const auto skipped = console.skippedLines(); skipped != 0) {
        log::warn("measure: {} line(s) not printed, standard output did not take them", skipped);
    }
}

/// True when standard output failed, which has been told then.
bool endLines(Workplace& place) {
    place.console->finishPrinting();
    place.results.afterLines(place.console->failure() != 0, place.console->endsInsideLine());
    return reportOutputFailure(place.console->failure());
}

/// Waits until the closed recordings have been checked and exported; no ECU waits that long.
bool isRecordingSound(session::IMeasured& session, const RecordingCare& care) {
    if (auto closed = session.close(); !closed) log::warn("{}", closed.error().text());
    session.finishRecording();
    if (care.failures() == 0) return true;
    log::error("measure: {} recording(s) are not sound or not exported, as told above", care.failures());
    return false;
}

}  // namespace

/// The exit code.
int MeasureCommand::failStart(Workplace& place, const Error& error) const {
    place.results.fail("measure", error);
    if (auto written = writeReport(place.measured->ecuName(), 0, 1, "measure: " + error.text(), nullptr);
        !written)
        place.results.fail("report", written.error());
    if (place.results.json() != nullptr) endLines(place);
    return 1;
}

int MeasureCommand::finish(Workplace& place, const session::PlanSummary& summary, double seconds,
                           WatchedRun* watched, const RecordingCare& care) const {
    session::IMeasured& session = *place.measured;
    Console& console = *place.console;
    bool failed = session.state() == session::SessionState::failed;
    for (const session::MeasurementStats& ecu : session.statistics().ecus)
        failed = failed || ecu.state == session::SessionState::failed;
    const auto stopped = session.stopMeasurement();
    if (watched != nullptr) watched->finish();
    console.finishPrinting();
    session::MeasurementStats stats = session.statistics();
    const bool takes = watched != nullptr && watched->recordsTakes();
    if (takes) {
        stats.recording = true;
        std::tie(stats.recorded, stats.recordedDropped) = watched->recordedAndDropped();
    }
    int exitCode = failed ? 2 : 0;
    if (stopped) {
        printMessage(statisticsLine(seconds, stats) + "\n" + ecuLines(stats) + uncheckedLine(summary));
    } else {
        place.results.fail("stop", stopped.error());
        log::warn("measure: {}", countsWithoutStop(stats));
        exitCode = failed ? 2 : 1;
    }
    const auto firstNs = console.firstNs();
    const bool isText = place.results.json() == nullptr;
    if (watched != nullptr && isText) printMessage(watched->lines());
    if (stats.recording && !takes && isText && console.prints() && firstNs)
        printMessage(zeroLine(stats, *firstNs));
    warnAboutLosses(stats, console);
    if (JsonWriter* json = place.results.json()) {
        writeStatistics(*json, seconds, summary, stats);
        if (watched != nullptr) watched->write(*json);
        if (stats.recording && !takes && firstNs) json->member("zeroNs", *firstNs - stats.recordingStartNs);
        json->member("skippedLines", console.skippedLines());
    }
    if (stats.parts != 0)
        printMessage(
            fmt::format("{} part(s), the last is {}\n", stats.parts, stats.recordingDirectory.string()));
    std::string reason;
    if (exitCode != 0) reason = failed ? "the connection was lost" : "the ECU did not confirm the stop";
    const auto goneWrong = [&](const char* what) {
        if (exitCode == 0) reason = what;
        if (exitCode == 0) exitCode = 1;
    };
    if (endLines(place)) goneWrong("standard output did not take all lines");
    if (!isRecordingSound(session, care)) goneWrong("a recording is not sound or not exported");
    if (watched != nullptr && watched->takeFailed()) goneWrong("a take could not be recorded");
    return judge(place, seconds, {exitCode, std::move(reason)}, stats, watched);
}

/// The exit code, after the report of it.
int MeasureCommand::judge(Workplace& place, double seconds, const Ending& ending,
                          const session::MeasurementStats& stats, const WatchedRun* watched) const {
    session::IMeasured& session = *place.measured;
    auto [exitCode, reason] = ending;
    const bool empty =
        std::find(options_.failOn.begin(), options_.failOn.end(), "empty") != options_.failOn.end();
    const bool untriggered = empty && watched != nullptr && watched->withoutTake();
    if (exitCode == 0 && (failsOn(options_.failOn, stats) || untriggered)) {
        exitCode = 3;
        reason = "--fail-on: " + (untriggered ? "no trigger came" : lossesInWords(stats));
    }
    const int withoutVerdicts = exitCode;
    if (exitCode == 0 && watched != nullptr && !watched->asWanted()) exitCode = 3;
    exitCode = withIdentity(exitCode, options_.failOn, session.identityWarned());
    if (withIdentity(0, options_.failOn, session.identityWarned()) != 0 && reason.empty())
        reason = "--fail-on: the ECU's EPK is not that of the A2L";
    if (auto written = writeReport(session.ecuName(), seconds, withoutVerdicts == 0 ? 3 : withoutVerdicts,
                                   reason, watched);
        !written) {
        place.results.fail("report", written.error());
        exitCode = std::max(exitCode, 1);
    }
    return exitCode;
}

}  // namespace lm::cli
