#include "cli/measurement_counts.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "core/printable_text.h"
#include "core/text.h"

namespace lm::cli {
namespace {

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
    return std::chrono::duration<double>(time).count();
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

std::string ecuLines(const session::MeasurementStats& stats) {
    std::string lines;
    for (const session::MeasurementStats& ecu : stats.ecus) {
        const std::string losses = lossesInWords(ecu);
        lines += fmt::format("  {}: {} records, {}", printableText(ecu.ecu), ecu.records,
                             losses.empty() ? "no losses" : losses);
        if (ecu.state == session::SessionState::failed) lines += ", its connection was lost";
        if (const auto& clock = ecu.clock)
            lines += ", clock: " + ecuClockText(clock->offsetNs - stats.recordingStartNs, clock->driftPpm,
                                                clock->residualNs, clock->spanNs);
        lines += '\n';
    }
    return lines;
}

std::string ecuClockText(std::int64_t offsetNs, double driftPpm, double residualNs, std::int64_t spanNs) {
    return fmt::format("offset {:.6f} s, drift {:+.1f} ppm, residual {:.3f} ms over {:.1f} s",
                       static_cast<double>(offsetNs) / 1e9, driftPpm, residualNs / 1e6,
                       static_cast<double>(spanNs) / 1e9);
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
        return what == "empty" && !stats.silentLists.empty();
    });
}

std::string countsWithoutStop(const session::MeasurementStats& stats) {
    std::string text = fmt::format("{} records", stats.records);
    const std::string losses = textOf(lineCounts(stats));
    if (!losses.empty()) text += ", " + losses;
    return text + recordedText(stats);
}

std::string zeroLine(const session::MeasurementStats& stats, std::int64_t firstNs) {
    const double seconds = static_cast<double>(firstNs - stats.recordingStartNs) / 1e9;
    return fmt::format("printed times count from the first record, {} s {} the start of the recording\n",
                       formatFixed(std::fabs(seconds), 3), seconds < 0 ? "before" : "after");
}

namespace {

void writeClock(JsonWriter& json, const session::MeasurementStats& stats) {
    json.key("clock");
    if (!stats.clock) return json.null();
    json.beginObject();
    json.member("offsetNs", stats.clock->offsetNs);
    json.member("driftPpm", stats.clock->driftPpm);
    json.member("residualNs", stats.clock->residualNs);
    json.member("spanNs", stats.clock->spanNs);
    json.endObject();
}

/// What each ECU has a part in; the summary is of all.
void writeCounts(JsonWriter& json, const session::MeasurementStats& stats,
                 const session::PlanSummary* summary) {
    json.member("records", stats.records);
    json.member("lostOdts", stats.lostOdts);
    json.member("missedCycles", stats.missedCycles);
    if (summary != nullptr) json.listMember("missedCyclesUnknownIn", summary->withoutCycle);
    json.member("overloads", stats.overloads);
    json.member("reconnects", stats.reconnects);
    json.member("failedReconnects", stats.failedReconnects);
    json.member("secondsWithoutSamples", inSeconds(stats.withoutSamples));
    json.member("secondsWithoutSamplesToEnd", inSeconds(stats.withoutSamplesToEnd));
    json.member("incompleteRecords", stats.incompleteRecords);
    json.member("unknownDtos", stats.unknownDtos);
    json.member("malformedDtos", stats.malformedDtos);
    writeMediumCounters(json, stats);
}

void writeSilentEvents(JsonWriter& json, const session::MeasurementStats& stats) {
    json.key("silentEvents").beginArray();
    for (const session::SilentList& list : stats.silentLists)
        json.value(list.event);
    json.endArray();
}

void writeEcuCounts(JsonWriter& json, const session::MeasurementStats& stats) {
    if (stats.ecus.empty()) return writeClock(json, stats);
    json.key("ecus").beginArray();
    for (const session::MeasurementStats& ecu : stats.ecus) {
        json.beginObject();
        json.member("name", ecu.ecu);
        json.member("state", session::sessionStateName(ecu.state));
        writeCounts(json, ecu, nullptr);
        writeSilentEvents(json, ecu);
        writeClock(json, ecu);
        json.endObject();
    }
    json.endArray();
}

}  // namespace

void writeStatistics(JsonWriter& json, double seconds, const session::PlanSummary& summary,
                     const session::MeasurementStats& stats) {
    json.key("statistics").beginObject();
    json.member("seconds", seconds);
    json.member("busLoad", summary.busLoad);
    writeCounts(json, stats, &summary);
    writeEcuCounts(json, stats);
    if (stats.recording) {
        json.member("recorded", stats.recorded);
        json.member("recordedDropped", stats.recordedDropped);
        json.member("recordingDirectory", stats.recordingDirectory.string());
        if (stats.parts != 0) json.member("parts", stats.parts);
    }
    writeSilentEvents(json, stats);
    json.endObject();
}

}  // namespace lm::cli
