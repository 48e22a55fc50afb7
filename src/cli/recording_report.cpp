#include "cli/recording_report.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <spdlog/fmt/fmt.h>

#include "cli/measurement_counts.h"
#include "core/printable_text.h"
#include "core/text.h"
#include "storage/read/signal_selection.h"

namespace lm::cli {
namespace {

using storage::GroupReader;
using storage::RecordingInfo;
using storage::SignalInfo;

std::string cycleText(std::int64_t cycleNs) {
    if (cycleNs <= 0) return "not cyclic";
    return formatGeneral(static_cast<double>(cycleNs) / 1e6) + " ms";
}

std::string gapText(const storage::Gaps& gaps, const RecordingInfo& info) {
    if (gaps.count == 0) return "none";
    return fmt::format("{}{}, the longest {:.3f} s at {:.3f} s", gaps.isLowerBound ? "at least " : "",
                       gaps.count, static_cast<double>(gaps.longest.lengthNs()) / 1e9,
                       secondsBetween(info.startHostNs, gaps.longest.beginNs));
}

void printCounts(const GroupReader& group, const storage::TimeSpan& span, const RecordingInfo& info,
                 Output& output) {
    output.append(fmt::format("  records      {}", group.recordCount()));
    if (!span.isEmpty()) {
        if (secondsOf(span) > 0) {
            output.append(
                fmt::format(", {:.1f}/s", static_cast<double>(group.recordCount() - 1) / secondsOf(span)));
        }
        output.append(fmt::format(", from {:.3f} s to {:.3f} s",
                                  secondsBetween(info.startHostNs, span.firstNs),
                                  secondsBetween(info.startHostNs, span.lastNs)));
    }
    output.append('\n');
    if (group.tornBytes() > 0 && !group.isBeingWritten()) {
        output.append(fmt::format("  torn record  {} bytes at the end\n", group.tornBytes()));
    }
}

void printSignals(const GroupOverview& group, Output& output) {
    const std::vector<SignalInfo>& signals = group.reader.info().signals;
    for (std::size_t i = 0; i < group.ranges.size(); ++i) {
        const SignalRange& range = group.ranges[i];
        output.append("  ");
        output.appendPadded(signals[i].name, 40);
        output.append(' ');
        output.appendPadded(value::dataTypeName(signals[i].coding.dataType), 13);
        if (!range) {
            output.append(" no value");
        } else {
            output.append(fmt::format(" {:>12} {:>12}", printableText(range->first.text),
                                      printableText(range->second.text)));
            if (!signals[i].conversion->unit().empty())
                output.append(" " + printableText(signals[i].conversion->unit()));
        }
        output.append('\n');
    }
}

/// How long all outages were; one without an end lasts at least to what is known last, a record or a line.
std::string lengthText(const storage::RecordingEvents& events, const storage::TimeSpan& span) {
    std::int64_t latestNs = span.lastNs;
    if (!events.clocks.empty()) latestNs = std::max(latestNs, events.clocks.back().hostNs);
    double seconds = 0;
    bool isKnown = true;
    for (const storage::Outage& outage : events.outages) {
        seconds += secondsBetween(outage.beginNs, outage.endNs.value_or(std::max(latestNs, outage.beginNs)));
        isKnown = isKnown && outage.endNs.has_value();
    }
    if (!isKnown && seconds == 0) return "length not known";
    return fmt::format("{}{:.3f} s in all", isKnown ? "" : "at least ", seconds);
}

std::string beforeEcu(const std::string& ecu) {
    return ecu.empty() ? "" : ecu + ": ";
}

void printOutages(const storage::RecordingEvents& events, const RecordingInfo& info,
                  const storage::TimeSpan& span, Output& output) {
    using File = storage::RecordingEvents::File;
    // An older program noted none.
    if (events.file == File::absent) return;
    if (!events.trouble.empty()) {
        output.append("outages        not known: " + printableText(events.trouble) + "\n");
        return;
    }
    if (events.outages.empty()) {
        output.append("outages        none\n");
        return;
    }
    output.append(fmt::format("outages        {}, {}\n", events.outages.size(), lengthText(events, span)));
    constexpr std::size_t kMostShown = 20;
    const std::size_t shown = std::min(events.outages.size(), kMostShown);
    for (std::size_t i = 0; i < shown; ++i)
        output.append("  " + outageText(events.outages[i], info) + "\n");
    if (shown < events.outages.size()) {
        output.append(fmt::format("  and {} more\n", events.outages.size() - shown));
    }
    for (std::size_t i = 0; i < std::min(events.ecuChanges.size(), kMostShown); ++i) {
        const storage::EcuChange& change = events.ecuChanges[i];
        output.append(fmt::format("  at {:.3f} s: {}\n", secondsBetween(info.startHostNs, change.timeNs),
                                  printableText(beforeEcu(change.ecu) + change.text)));
    }
}

/// Remarks, and parameters that were written meanwhile.
void printHappenings(const storage::RecordingEvents& events, const RecordingInfo& info, Output& output) {
    constexpr std::size_t kMostShown = 50;
    const auto all = happenings(events, info);
    for (std::size_t i = 0; i < std::min(all.size(), kMostShown); ++i)
        output.append(fmt::format("{:<14} {}\n", all[i].kind, all[i].text));
    if (all.size() > kMostShown) output.append(fmt::format("  and {} more\n", all.size() - kMostShown));
}

/// How far UTC and the clock of the timestamps have moved apart since the start.
void printClocks(const storage::RecordingEvents& events, const RecordingInfo& info, Output& output) {
    if (events.clocks.size() < 2) return;
    const storage::ClockPair& first = events.clocks.front();
    const storage::ClockPair& last = events.clocks.back();
    const double moved = secondsBetween(first.utcNs, last.utcNs) - secondsBetween(first.hostNs, last.hostNs);
    constexpr double kWorthTelling = 0.001;
    if (std::fabs(moved) < kWorthTelling) return;
    output.append(fmt::format("UTC            moved by {:+.3f} s against the recording's clock until {}\n",
                              moved, secondsText(last.hostNs, info)));
}

/// Times of day are those of the recording host.
void printClockSteps(const storage::RecordingEvents& events, const RecordingInfo& info, Output& output) {
    for (const storage::ClockStep& step : events.steps) {
        output.append(fmt::format("clock set      by {:+.3f} s at {}\n", static_cast<double>(step.byNs) / 1e9,
                                  secondsText(step.after.hostNs, info)));
    }
}

/// What ran in the ECU, and what was no longer the same after a reconnection.
void printEcuNotes(const storage::RecordingEvents& events, const RecordingInfo& info, Output& output) {
    const storage::EcuNote* before = nullptr;
    for (const storage::EcuNote& note : events.ecus) {
        const bool sameSums =
            before != nullptr && std::equal(before->sums.begin(), before->sums.end(), note.sums.begin(),
                                            note.sums.end(), [](const auto& a, const auto& b) {
                                                return a.segment == b.segment && a.sums == b.sums;
                                            });
        if (before != nullptr && sameSums && before->epk == note.epk && note.trouble.empty()) continue;
        before = &note;
        std::string text = note.epk.empty() ? "" : ", EPK \"" + note.epk + "\"";
        for (const storage::EcuNote::Sum& sum : note.sums)
            text += fmt::format(", segment {}{} {}", sum.segment,
                                sum.page ? fmt::format(" page {}", *sum.page) : "", sum.sums);
        if (!note.trouble.empty()) text += ", not all known: " + note.trouble;
        output.append("ECU ran        " +
                      printableText(fmt::format("{}at {}{}", beforeEcu(note.ecu),
                                                secondsText(note.timeNs, info), text)) +
                      "\n");
    }
}

void printEcuClocks(const storage::RecordingEvents& events, const RecordingInfo& info, Output& output) {
    for (const storage::EcuClock& clock : events.ecuClocks) {
        const std::string text =
            ecuClockText(clock.offsetNs - info.startHostNs, clock.driftPpm, clock.residualNs, clock.spanNs);
        output.append("ECU clock      " + printableText(beforeEcu(clock.ecu)) + text + "\n");
    }
}

void printEcus(const RecordingInfo& info, Output& output) {
    for (const storage::EcuInfo& ecu : info.ecus) {
        std::string text = fmt::format("{} ({})", ecu.name, ecu.source);
        if (!ecu.a2lName.empty()) text += ", A2L " + ecu.a2lName;
        if (!ecu.a2lSha256.empty()) text += ", SHA-256 " + ecu.a2lSha256;
        output.append("  ECU          " + printableText(text) + "\n");
    }
}

void printParts(const RecordingOverview& overview, Output& output) {
    const auto& more = overview.recording.more();
    if (!more.empty()) {
        output.append(printableText(fmt::format("recordings     {}, from {} to {}", more.size() + 1,
                                                overview.recording.directory().filename().string(),
                                                more.back().directory.filename().string())) +
                      "\n");
    } else if (const auto& part = overview.recording.info().part) {
        const auto& end = overview.events.end;
        output.append(printableText(fmt::format("part           {}{}{}", part->number,
                                                part->previous.empty() ? "" : ", after " + part->previous,
                                                end ? ", before " + end->next : "")) +
                      "\n");
    }
    for (const storage::PartBreak& found : overview.breaks)
        output.append("  " + printableText(found.text) + "\n");
}

std::string_view clockName(storage::GroupInfo::Clock clock) {
    return clock == storage::GroupInfo::Clock::ecu ? "timestamps of the ECU, laid on the host's clock"
                                                   : "the host's, when a record came";
}

void printGroup(const GroupOverview& group, const RecordingInfo& info, Output& output) {
    const std::int64_t cycle = group.reader.info().cycleNs;
    output.append(fmt::format("group {:<8} {}, {}\n", group.reader.number(),
                              printableText(group.reader.info().name), cycleText(cycle)));
    if (const auto clock = group.reader.info().clock)
        output.append(fmt::format("  times        {}\n", clockName(*clock)));
    printCounts(group.reader, group.span, info, output);
    if (cycle <= 0) {
        output.append("  gaps         not known, no cycle says when the next record is due\n");
    } else if (group.gaps) {
        output.append("  gaps         " + gapText(*group.gaps, info) + "\n");
    }
    printSignals(group, output);
}

void printHead(const RecordingOverview& overview, Output& output) {
    const RecordingInfo& info = overview.recording.info();
    output.append("recording      " + printableText(info.name) +
                  (overview.beingWritten ? ", still being recorded" : "") + "\n");
    const std::string source = info.source.empty() ? "" : " (" + info.source + ")";
    output.append("ECU            " + printableText(info.ecu + source) + "\n");
    printEcus(info, output);
    output.append("start          " + storage::utcText(info.startHostNs, info, 3) + "\n");
    printParts(overview, output);
    output.append(fmt::format("duration       {:.3f} s\n", secondsOf(overview.span)));
    output.append("size           " + formatSize(overview.bytes) + "\n");
    for (const storage::Trigger& trigger : overview.events.triggers)
        output.append("trigger        " + triggerText(trigger, info) + "\n");
    printOutages(overview.events, info, overview.span, output);
    printHappenings(overview.events, info, output);
    printClocks(overview.events, info, output);
    printClockSteps(overview.events, info, output);
    printEcuNotes(overview.events, info, output);
    printEcuClocks(overview.events, info, output);
    if (!info.a2lName.empty())
        output.append("A2L            " + printableText(info.a2lName) +
                      (info.a2lSha256.empty() ? "" : ", SHA-256 " + info.a2lSha256) + "\n");
    if (!info.commandLine.empty()) output.append("command        " + commandText(info.commandLine) + "\n");
}

/// Wraps rather than overflows: times of damaged files are any number.
std::int64_t sinceStart(std::int64_t timeNs, const RecordingInfo& info) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(timeNs) -
                                     static_cast<std::uint64_t>(info.startHostNs));
}

void writeEvents(JsonWriter& json, const storage::RecordingEvents& events, const RecordingInfo& info) {
    if (events.file == storage::RecordingEvents::File::absent) return;
    if (!events.trouble.empty()) return json.member("outagesNotKnown", events.trouble);
    json.key("outages").beginArray();
    for (const storage::Outage& outage : events.outages) {
        json.beginObject();
        json.member("beginNs", sinceStart(outage.beginNs, info));
        json.key("endNs");
        outage.endNs ? json.value(sinceStart(*outage.endNs, info)) : json.null();
        json.member("recovered", outage.recovered);
        json.member("reason", outage.reason);
        json.member("outcome", outage.outcome);
        if (!outage.ecu.empty()) json.member("ecu", outage.ecu);
        json.endObject();
    }
    json.endArray();
    json.key("ecuChanges").beginArray();
    for (const storage::EcuChange& change : events.ecuChanges) {
        json.beginObject();
        json.member("atNs", sinceStart(change.timeNs, info));
        json.member("what", change.what);
        json.member("text", change.text);
        if (!change.ecu.empty()) json.member("ecu", change.ecu);
        json.endObject();
    }
    json.endArray();
    json.key("markers").beginArray();
    for (const storage::Marker& marker : events.markers) {
        json.beginObject();
        json.member("atNs", sinceStart(marker.timeNs, info));
        json.member("text", marker.text);
        json.endObject();
    }
    json.endArray();
    json.key("writes").beginArray();
    for (const storage::ParameterWrite& write : events.writes) {
        json.beginObject();
        json.member("atNs", sinceStart(write.timeNs, info));
        json.member("name", write.name);
        json.member("old", write.before);
        json.member("new", write.after);
        json.member("by", write.by);
        json.endObject();
    }
    json.endArray();
}

void writeEcus(JsonWriter& json, const RecordingOverview& overview) {
    const RecordingInfo& info = overview.recording.info();
    if (!info.ecus.empty()) json.key("ecus").beginArray();
    for (const storage::EcuInfo& ecu : info.ecus) {
        json.beginObject();
        json.member("name", ecu.name);
        json.member("source", ecu.source);
        json.member("a2lName", ecu.a2lName);
        json.member("a2lSha256", ecu.a2lSha256);
        json.endObject();
    }
    if (!info.ecus.empty()) json.endArray();
    json.key("ecuClocks").beginArray();
    for (const storage::EcuClock& clock : overview.events.ecuClocks) {
        json.beginObject();
        if (!clock.ecu.empty()) json.member("ecu", clock.ecu);
        json.member("atNs", sinceStart(clock.timeNs, info));
        json.member("offsetNs", sinceStart(clock.offsetNs, info));
        json.member("driftPpm", clock.driftPpm);
        json.member("residualNs", clock.residualNs);
        json.member("spanNs", clock.spanNs);
        json.endObject();
    }
    json.endArray();
}

/// What ran, and how the clocks went.
void writeWhatRan(JsonWriter& json, const RecordingOverview& overview) {
    const RecordingInfo& info = overview.recording.info();
    json.member("a2lName", info.a2lName);
    json.member("a2lSha256", info.a2lSha256);
    json.listMember("commandLine", info.commandLine);
    json.key("clockSteps").beginArray();
    for (const storage::ClockStep& step : overview.events.steps) {
        json.beginObject();
        json.member("atNs", sinceStart(step.after.hostNs, info));
        json.member("byNs", step.byNs);
        json.endObject();
    }
    json.endArray();
    json.key("triggers").beginArray();
    for (const storage::Trigger& trigger : overview.events.triggers) {
        json.beginObject();
        json.member("atNs", sinceStart(trigger.timeNs, info));
        json.member("what", trigger.isStart ? "start" : "stop");
        json.member("text", trigger.text);
        json.endObject();
    }
    json.endArray();
    json.key("ecuRan").beginArray();
    for (const storage::EcuNote& note : overview.events.ecus) {
        json.beginObject();
        json.member("atNs", sinceStart(note.timeNs, info));
        if (!note.ecu.empty()) json.member("ecu", note.ecu);
        json.member("epk", note.epk);
        json.member("trouble", note.trouble);
        json.key("checksums").beginArray();
        for (const storage::EcuNote::Sum& sum : note.sums) {
            json.beginObject();
            json.member("segment", sum.segment);
            json.member("sums", sum.sums);
            json.endObject();
        }
        json.endArray();
        json.endObject();
    }
    json.endArray();
}

void writeParts(JsonWriter& json, const RecordingOverview& overview) {
    json.key("recordings").beginArray();
    json.value(overview.recording.directory().string());
    for (const storage::RecordingPart& part : overview.recording.more())
        json.value(part.directory.string());
    json.endArray();
    json.key("breaks").beginArray();
    for (const storage::PartBreak& found : overview.breaks) {
        json.beginObject();
        json.member("text", found.text);
        json.member("isLoss", found.isLoss);
        json.endObject();
    }
    json.endArray();
}

void writeExtreme(JsonWriter& json, std::string_view name, const Extreme& extreme) {
    json.key(name).beginObject();
    json.member("physical", extreme.physical);
    json.member("text", extreme.text);
    json.endObject();
}

void writeSignals(JsonWriter& json, const GroupOverview& group) {
    json.key("signals").beginArray();
    for (std::size_t i = 0; i < group.ranges.size(); ++i) {
        const SignalInfo& signal = group.reader.info().signals[i];
        json.beginObject();
        json.member("name", signal.name);
        json.member("type", value::dataTypeName(signal.coding.dataType));
        json.member("unit", signal.conversion->unit());
        if (group.ranges[i]) {
            writeExtreme(json, "least", group.ranges[i]->first);
            writeExtreme(json, "greatest", group.ranges[i]->second);
        }
        json.endObject();
    }
    json.endArray();
}

void writeGroup(JsonWriter& json, const GroupOverview& group, const RecordingInfo& info) {
    json.beginObject();
    json.member("group", group.reader.number());
    json.member("name", group.reader.info().name);
    if (!group.reader.info().ecu.empty()) json.member("ecu", group.reader.info().ecu);
    json.member("cycleNs", group.reader.info().cycleNs);
    if (const auto clock = group.reader.info().clock)
        json.member("clock", *clock == storage::GroupInfo::Clock::ecu ? "ecu" : "host");
    json.member("records", group.reader.recordCount());
    if (!group.span.isEmpty()) {
        json.member("firstNs", sinceStart(group.span.firstNs, info));
        json.member("lastNs", sinceStart(group.span.lastNs, info));
    }
    json.member("tornBytes", group.reader.isBeingWritten() ? 0 : group.reader.tornBytes());
    if (group.gaps) {
        json.key("gaps").beginObject();
        json.member("count", group.gaps->count);
        json.member("isLowerBound", group.gaps->isLowerBound);
        json.member("longestNs", group.gaps->longest.lengthNs());
        json.member("longestFromNs",
                    group.gaps->count == 0 ? 0 : sinceStart(group.gaps->longest.beginNs, info));
        json.endObject();
    }
    writeSignals(json, group);
    json.endObject();
}

}  // namespace

std::string sizeText(std::uint64_t bytes) {
    constexpr const char* kUnits[] = {"bytes", "kB", "MB", "GB", "TB"};
    if (bytes < 1000) return fmt::format("{} bytes", bytes);
    auto size = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; size >= 1000 && unit + 1 < std::size(kUnits); ++unit)
        size /= 1000;
    return fmt::format("{:.1f} {}", size, kUnits[unit]);
}

void RecordingReport::print(Output& output) const {
    printHead(overview_, output);
    for (const GroupOverview& group : overview_.groups)
        printGroup(group, overview_.recording.info(), output);
}

void RecordingReport::write(JsonWriter& json) const {
    const RecordingInfo& info = overview_.recording.info();
    json.member("name", info.name);
    json.member("beingWritten", overview_.beingWritten);
    json.member("ecu", info.ecu);
    json.member("source", info.source);
    json.member("start", storage::utcText(info.startHostNs, info, 9));
    json.member("startUtcNs", info.startUtcNs);
    json.member("seconds", secondsOf(overview_.span));
    json.member("bytes", overview_.bytes);
    writeEvents(json, overview_.events, info);
    writeWhatRan(json, overview_);
    writeEcus(json, overview_);
    writeParts(json, overview_);
    json.key("groups").beginArray();
    for (const GroupOverview& group : overview_.groups)
        writeGroup(json, group, info);
    json.endArray();
}

}  // namespace lm::cli
