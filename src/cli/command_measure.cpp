#include "cli/command_measure.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <poll.h>
#include <string_view>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "cli/command_info.h"
#include "cli/console_printer.h"
#include "cli/live_table.h"
#include "cli/message_output.h"
#include "cli/options.h"
#include "cli/output.h"
#include "cli/signal_list.h"
#include "cli/stop_signal.h"
#include "cli/terminal_screen.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "core/text.h"
#include "session/measurement_plan.h"

namespace lm::cli {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// One look at everything that ends a measurement from outside; waits up to 50 ms for it to happen.
bool stopAskedFor(const Console& console, LiveTable* table, Seconds left) {
    const double limitMs = std::clamp(std::ceil(left.count() * 1000), 0.0, 50.0);
    std::array<pollfd, 3> waits = {pollfd{stopToken().descriptor(), POLLIN, 0}, pollfd{STDOUT_FILENO, 0, 0},
                                   pollfd{table != nullptr ? table->keyDescriptor() : -1, POLLIN, 0}};
    const int ready = ::poll(waits.data(), waits.size(), static_cast<int>(limitMs));
    if (ready > 0 && waits[2].revents != 0) table->takeKeys();
    const bool readerGone = ready > 0 && (waits[1].revents & (POLLERR | POLLHUP)) != 0;
    return stopRequested() || readerGone || console.failure() != 0 ||
           (table != nullptr && table->failure() != 0);
}

// Returns the seconds measured.
double measureUntilEnd(double duration, const session::Session& session, const Console& console,
                       LiveTable* table) {
    const auto start = Clock::now();
    for (;;) {
        const Seconds elapsed = Clock::now() - start;
        if (session.state() == session::SessionState::failed) return elapsed.count();
        if (duration > 0 && elapsed.count() >= duration) return elapsed.count();
        const Seconds left = duration > 0 ? Seconds(duration) - elapsed : Seconds(1);
        if (table != nullptr) table->update(session, elapsed.count());
        if (stopAskedFor(console, table, left)) return Seconds(Clock::now() - start).count();
    }
}

void warnAboutLosses(const session::MeasurementStats& stats, const Console& console) {
    const std::string losses = otherLosses(stats);
    if (!losses.empty()) log::warn("measure: {}", losses);
    for (const std::string& line : silentLists(stats))
        log::warn("measure: {}", line);
    if (const auto skipped = console.skippedLines(); skipped != 0) {
        log::warn("measure: {} line(s) not printed, standard output did not take them", skipped);
    }
}

/// Where a recording has the zero of the printed times: its own is its start.
std::string zeroLine(const session::MeasurementStats& stats, std::int64_t firstNs) {
    const double seconds = static_cast<double>(firstNs - stats.recordingStartNs) / 1e9;
    return fmt::format("printed times count from the first record, {} s {} the start of the recording\n",
                       formatFixed(std::fabs(seconds), 3), seconds < 0 ? "before" : "after");
}

using Counts = std::vector<std::pair<std::string_view, std::uint64_t>>;

/// Those that are not zero.
std::string textOf(const Counts& counts) {
    std::string text;
    for (const auto& [name, count] : counts) {
        if (count != 0) text += fmt::format("{}{} {}", text.empty() ? "" : ", ", name, count);
    }
    return text;
}

/// What the statistics line tells behind the records. It is the same for every medium.
Counts lineCounts(const session::MeasurementStats& stats) {
    return {{"lost ODTs", stats.lostOdts},
            {"missed cycles", stats.missedCycles},
            {"overloads", stats.overloads},
            {"reconnects", stats.reconnects},
            {session::kCanDropped, stats.mediumCount(session::kCanDropped)},
            {session::kErrorFrames, stats.mediumCount(session::kErrorFrames)}};
}

std::string recordedText(const session::MeasurementStats& stats) {
    if (!stats.recording) return "";
    return fmt::format(", recorded {} (dropped {})", stats.recorded, stats.recordedDropped);
}

double inSeconds(std::chrono::nanoseconds time) {
    return Seconds(time).count();
}

/// Names of events for a line of text.
std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + printableText(name);
    return text;
}

/// What is not known to be samples of this measurement (foreign frames that the kernel dropped) counts too:
/// it may have been.
bool lostSamples(const session::MeasurementStats& stats) {
    const std::uint64_t lost = stats.lostOdts + stats.missedCycles + stats.overloads + stats.recordedDropped +
                               stats.incompleteRecords + stats.unknownDtos + stats.malformedDtos;
    return lost != 0 || std::any_of(stats.medium.begin(), stats.medium.end(),
                                    [](const auto& counter) { return counter.isLoss && counter.value != 0; });
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

void writeMediumCounters(JsonWriter& json, const session::MeasurementStats& stats) {
    json.key("medium").beginArray();
    for (const session::MediumCounter& counter : stats.medium) {
        json.beginObject();
        json.member("name", counter.name);
        json.member("count", counter.value);
        json.member("isLoss", counter.isLoss);
        json.endObject();
    }
    json.endArray();
}

/// The member "statistics" of the last JSON line.
void writeStatistics(JsonWriter& json, double seconds, const session::PlanSummary& summary,
                     const session::MeasurementStats& stats) {
    json.key("statistics").beginObject();
    json.member("seconds", seconds);
    json.member("busLoad", summary.busLoad);
    json.member("records", stats.records);
    json.member("lostOdts", stats.lostOdts);
    json.member("missedCycles", stats.missedCycles);
    json.listMember("missedCyclesUnknownIn", summary.withoutCycle);
    json.member("overloads", stats.overloads);
    json.member("reconnects", stats.reconnects);
    json.member("failedReconnects", stats.failedReconnects);
    json.member("secondsWithoutSamples", inSeconds(stats.withoutSamples));
    json.member("secondsWithoutSamplesToEnd", inSeconds(stats.withoutSamplesToEnd));
    json.member("incompleteRecords", stats.incompleteRecords);
    json.member("unknownDtos", stats.unknownDtos);
    json.member("malformedDtos", stats.malformedDtos);
    writeMediumCounters(json, stats);
    if (stats.recording) {
        json.member("recorded", stats.recorded);
        json.member("recordedDropped", stats.recordedDropped);
    }
    json.key("silentEvents").beginArray();
    for (const session::SilentList& list : stats.silentLists)
        json.value(list.event);
    json.endArray();
    json.endObject();
}

std::string notEmpty(const std::string& text) {
    return text.empty() ? "is empty" : "";
}

/// True when standard output failed, which has been told then.
bool endLines(Workplace& place) {
    place.console->finishPrinting();
    place.results.afterLines(place.console->failure() != 0, place.console->endsInsideLine());
    return reportOutputFailure(place.console->failure());
}

}  // namespace

std::string startLine(const session::PlanSummary& summary, const std::string& recordDirectory) {
    return fmt::format("measuring {} signal(s) in {} DAQ list(s), estimated bus load {} %{} - Ctrl-C to stop",
                       summary.signalCount, summary.listCount, formatFixed(summary.busLoad * 100, 1),
                       recordDirectory.empty() ? "" : ", recording to " + recordDirectory);
}

std::string outsideLoadLine(const session::PlanSummary& summary) {
    if (summary.notInLoad.empty()) return "";
    return "the estimated bus load leaves out " + joined(summary.notInLoad) + ": no cycle is known\n";
}

std::string statisticsLine(double seconds, const session::MeasurementStats& stats) {
    std::string line = fmt::format("{} s: {} records", formatFixed(seconds, 1), stats.records);
    for (const auto& [name, count] : lineCounts(stats))
        line += fmt::format(", {} {}", name, count);
    return line + recordedText(stats);
}

std::string uncheckedLine(const session::PlanSummary& summary) {
    if (summary.withoutCycle.empty()) return "";
    return "missed cycles cannot be checked in " + joined(summary.withoutCycle) + ": no cycle is known\n";
}

std::string otherLosses(const session::MeasurementStats& stats) {
    Counts counts = {{"incomplete records", stats.incompleteRecords},
                     {"unknown DTOs", stats.unknownDtos},
                     {"malformed DTOs", stats.malformedDtos}};
    for (const session::MediumCounter& counter : stats.medium) {
        if (counter.name == session::kCanDropped || counter.name == session::kErrorFrames) continue;
        counts.emplace_back(counter.name, counter.value);
    }
    std::string text = textOf(counts);
    const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (stats.withoutSamples.count() != 0) {
        add(fmt::format("{} s without samples before {} reconnection(s)",
                        formatFixed(inSeconds(stats.withoutSamples), 1),
                        stats.reconnects - stats.failedReconnects));
    }
    if (stats.failedReconnects != 0) {
        add(fmt::format("{} of {} reconnects failed", stats.failedReconnects, stats.reconnects));
    }
    if (stats.withoutSamplesToEnd.count() != 0) {
        add(fmt::format("{} s without samples up to the end",
                        formatFixed(inSeconds(stats.withoutSamplesToEnd), 1)));
    }
    return text;
}

std::string lossesInWords(const session::MeasurementStats& stats) {
    Counts counts = lineCounts(stats);
    counts.emplace_back("records dropped by the recording", stats.recordedDropped);
    const std::string first = textOf(counts);
    const std::string others = otherLosses(stats);
    return first + (first.empty() || others.empty() ? "" : ", ") + others;
}

std::vector<std::string> silentLists(const session::MeasurementStats& stats) {
    std::vector<std::string> lines;
    for (const session::SilentList& list : stats.silentLists) {
        std::string event = list.eventName;
        if (!event.empty()) event += ", ";
        event += list.cycleNs > 0
                     ? fmt::format("{} ms", formatGeneral(static_cast<double>(list.cycleNs) / 1e6))
                     : "not cyclic";
        lines.push_back(fmt::format("no record came of event {} ({})", list.event, event));
    }
    if (!stats.silenceHint.empty()) lines.push_back(stats.silenceHint);
    return lines;
}

bool failsOn(const std::vector<std::string>& failOn, const session::MeasurementStats& stats) {
    return std::any_of(failOn.begin(), failOn.end(), [&stats](const std::string& what) {
        if (what == "losses") return lostSamples(stats);
        if (what == "outage") return stats.reconnects != 0 || stats.withoutSamplesToEnd.count() != 0;
        return !stats.silentLists.empty();
    });
}

std::string countsWithoutStop(const session::MeasurementStats& stats) {
    std::string text = fmt::format("{} records", stats.records);
    const std::string losses = textOf(lineCounts(stats));
    if (!losses.empty()) text += ", " + losses;
    return text + recordedText(stats);
}

void MeasureCommand::addOptions(OptionSet& options) {
    options.add("-s,--signal", options_.signals, "NAME or NAME@EVENT (default: configuration)");
    addFolders(options, options_.groups, options_.functions);
    options.add("--signals-from", options_.signalsFrom, "File with more signals, one a line");
    options
        .add("--event", options_.event,
             "Event of names without one: its number, its name, or auto (the A2L names it)")
        .check(notEmpty);
    addDuration(options, options_.durationSeconds, "Seconds (0 = until Ctrl-C)");
    options.add("-r,--record", options_.recordDirectory, "Recording directory")
        .each([this](const std::string& directory) { recordsNowhere_ = directory.empty(); });
    options.add("-p,--print-every", options_.printEvery, "Print every n-th record per DAQ list (0 = none)")
        .showDefault("100");
    options.addFlag("--table", options_.table, "Show all signals in place, in a terminal");
    addExact(options, options_.exact);
    options
        .add("--fail-on", options_.failOn,
             "losses,outage,empty: exit code 3 when samples were lost, the connection was lost, or a "
             "DAQ list gave no record")
        .oneEach(',')
        .oneOf({"losses", "outage", "empty"});
}

Result<void> MeasureCommand::prepare(Form form) {
    if (options_.table) {
        if (form != Form::text)
            return Error{ErrorCode::invalidArgument, "--table and --json exclude each other"};
        if (auto able = TerminalScreen::check(STDOUT_FILENO); !able) return able;
    }
    if (!options_.signalsFrom) return {};
    auto names = readSignalList(*options_.signalsFrom, stopToken());
    if (!names) return names.error();
    options_.signals.insert(options_.signals.end(), names.value().begin(), names.value().end());
    return {};
}

void MeasureCommand::overrule(session::SessionConfig& config) const {
    if (options_.event)
        config.daq.defaultEvent = session::parseDefaultEvent(*options_.event, config.daq.defaultEvent);
    config.display.exact = config.display.exact || options_.exact;
}

Result<session::PlanSummary> MeasureCommand::start(Workplace& place, LiveTable* table) const {
    session::Session& session = *place.session;
    Console& console = *place.console;
    const bool isJson = place.results.json() != nullptr;
    const std::uint32_t interval = options_.printEvery.value_or(isJson ? 1 : 100);
    if (table == nullptr && (isJson || interval != 0)) {
        if (auto printing = console.startPrinting(interval); !printing) return printing.error();
    }
    session::MeasurementOptions measurement;
    measurement.signals = options_.signals;
    measurement.groups = options_.groups;
    measurement.functions = options_.functions;
    measurement.recordDirectory = options_.recordDirectory;
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
    return session.startMeasurement(measurement);
}

int MeasureCommand::run(Workplace& place) {
    session::Session& session = *place.session;
    if (recordsNowhere_) {
        log::warn("measure: -r names no directory (a variable that is not set?), nothing is recorded");
    }
    std::optional<LiveTable> table;
    if (options_.table) table.emplace(numberStyle(session.config()), options_.recordDirectory);
    LiveTable* const shown = table ? &*table : nullptr;
    const auto summary = start(place, shown);
    if (!summary) {
        place.results.fail("measure", summary.error());
        if (place.results.json() != nullptr) endLines(place);
        return 1;
    }
    printMessage(startLine(summary.value(), options_.recordDirectory) + "\n" +
                 outsideLoadLine(summary.value()));
    if (table) table->begin();
    const double seconds = measureUntilEnd(options_.durationSeconds, session, *place.console, shown);
    if (table) table->finish();
    return finish(place, summary.value(), seconds);
}

int MeasureCommand::finish(Workplace& place, const session::PlanSummary& summary, double seconds) const {
    session::Session& session = *place.session;
    Console& console = *place.console;
    const bool failed = session.state() == session::SessionState::failed;
    const auto stopped = session.stopMeasurement();
    console.finishPrinting();
    const session::MeasurementStats stats = session.statistics();
    int exitCode = failed ? 2 : 0;
    if (stopped) {
        printMessage(statisticsLine(seconds, stats) + "\n" + uncheckedLine(summary));
    } else {
        place.results.fail("stop", stopped.error());
        log::warn("measure: {}", countsWithoutStop(stats));
        exitCode = failed ? 2 : 1;
    }
    const auto firstNs = console.firstNs();
    const bool isText = place.results.json() == nullptr;
    if (stats.recording && isText && console.prints() && firstNs) printMessage(zeroLine(stats, *firstNs));
    warnAboutLosses(stats, console);
    if (JsonWriter* json = place.results.json()) {
        writeStatistics(*json, seconds, summary, stats);
        if (stats.recording && firstNs) json->member("zeroNs", *firstNs - stats.recordingStartNs);
        json->member("skippedLines", console.skippedLines());
    }
    if (endLines(place) && exitCode == 0) exitCode = 1;
    return exitCode == 0 && failsOn(options_.failOn, stats) ? 3 : exitCode;
}

}  // namespace lm::cli
