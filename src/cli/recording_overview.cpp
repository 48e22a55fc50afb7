#include "cli/recording_overview.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <numeric>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <spdlog/fmt/fmt.h>

#include "cli/stop_signal.h"
#include "core/text.h"
#include "storage/format/recording_events.h"
#include "storage/read/gap_finder.h"
#include "storage/read/pyramid_reader.h"
#include "storage/read/signal_selection.h"
#include "value/conversion.h"
#include "xcp/text_lines.h"

namespace lm::cli {
namespace {

using storage::GroupReader;
using storage::RecordingInfo;
using storage::SignalInfo;

/// The first and the last timestamp of a group that has records.
struct Span {
    std::int64_t firstNs = std::numeric_limits<std::int64_t>::max();
    std::int64_t lastNs = std::numeric_limits<std::int64_t>::min();

    bool isEmpty() const { return firstNs > lastNs; }
    double seconds() const { return isEmpty() ? 0 : secondsBetween(firstNs, lastNs); }
    static double secondsBetween(std::int64_t fromNs, std::int64_t toNs) {
        return (static_cast<double>(toNs) - static_cast<double>(fromNs)) / 1e9;
    }
};

std::string sizeText(std::uint64_t bytes) {
    constexpr const char* kUnits[] = {"bytes", "kB", "MB", "GB", "TB"};
    if (bytes < 1000) return fmt::format("{} bytes", bytes);
    auto size = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; size >= 1000 && unit + 1 < std::size(kUnits); ++unit)
        size /= 1000;
    return fmt::format("{:.1f} {}", size, kUnits[unit]);
}

std::uint64_t directorySize(const std::filesystem::path& directory) {
    std::uint64_t size = 0;
    std::error_code failure;
    for (std::filesystem::directory_iterator entry(directory, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        std::error_code unknown;
        const std::uint64_t bytes = entry->is_regular_file(unknown) ? entry->file_size(unknown) : 0;
        if (!unknown) size += bytes;
    }
    return size;
}

Result<Span> spanOf(const GroupReader& group) {
    Span span;
    if (group.recordCount() == 0) return span;
    auto first = group.timestampNs(0);
    if (!first) return first.error();
    auto last = group.timestampNs(group.recordCount() - 1);
    if (!last) return last.error();
    span.firstNs = first.value();
    span.lastNs = last.value();
    return span;
}

std::string cycleText(std::int64_t cycleNs) {
    if (cycleNs <= 0) return "not cyclic";
    return formatGeneral(static_cast<double>(cycleNs) / 1e6) + " ms";
}

std::string gapText(const storage::GapSummary& gaps, const RecordingInfo& info) {
    if (gaps.count == 0) return "none";
    return fmt::format("{}{}, the longest {:.3f} s at {:.3f} s", gaps.isLowerBound ? "at least " : "",
                       gaps.count, static_cast<double>(gaps.longestNs) / 1e9,
                       Span::secondsBetween(info.startHostNs, gaps.longestFromNs));
}

void printCounts(const GroupReader& group, const Span& span, const RecordingInfo& info, Output& output) {
    output.append(fmt::format("  records      {}", group.recordCount()));
    if (!span.isEmpty()) {
        if (span.seconds() > 0) {
            output.append(
                fmt::format(", {:.1f}/s", static_cast<double>(group.recordCount() - 1) / span.seconds()));
        }
        output.append(fmt::format(", from {:.3f} s to {:.3f} s",
                                  Span::secondsBetween(info.startHostNs, span.firstNs),
                                  Span::secondsBetween(info.startHostNs, span.lastNs)));
    }
    output.append('\n');
    if (group.tornBytes() > 0 && !group.isBeingWritten()) {
        output.append(fmt::format("  torn record  {} bytes at the end\n", group.tornBytes()));
    }
}

/// The least and the greatest value of a signal as they are shown; none when there is no value.
using ExtremeTexts = std::optional<std::pair<std::string, std::string>>;

Result<std::vector<ExtremeTexts>> extremesFromLevels(const GroupReader& group,
                                                     const std::filesystem::path& directory) {
    const std::vector<SignalInfo>& signals = group.info().signals;
    std::vector<std::size_t> all(signals.size());
    std::iota(all.begin(), all.end(), 0U);
    auto extremes = storage::PyramidReader(directory, group).extremes(group.all(), all);
    if (!extremes) return extremes.error();
    std::vector<ExtremeTexts> texts(signals.size());
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const storage::ValueRange& range = extremes.value()[i];
        if (range.isEmpty()) continue;
        texts[i].emplace(physicalText(range.minimum, signals[i]), physicalText(range.maximum, signals[i]));
    }
    return texts;
}

/// A value as it was recorded.
struct Sample {
    value::Value raw;
    value::Value physical;  ///< a number, also of a verbal conversion
};
struct Extremes {
    std::optional<Sample> least;
    std::optional<Sample> greatest;

    void add(Sample sample) {
        if (std::isnan(value::toDouble(sample.physical))) return;
        if (!least || sample.physical < least->physical) least = sample;
        if (!greatest || sample.physical > greatest->physical) greatest = std::move(sample);
    }
};

Result<std::vector<ExtremeTexts>> extremesFromRecords(const GroupReader& group) {
    const std::vector<SignalInfo>& signals = group.info().signals;
    std::vector<Extremes> extremes(signals.size());
    storage::RecordStream stream = group.read(group.all());
    for (;;) {
        auto batch = stream.next();
        if (!batch) return batch.error();
        if (stopRequested()) return Error{ErrorCode::closed, "stopped"};
        if (batch.value().count == 0) break;
        for (std::size_t i = 0; i < signals.size(); ++i) {
            for (std::size_t n = 0; n < batch.value().count; ++n) {
                const std::uint8_t* bytes = batch.value().data(n) + signals[i].recordOffset;
                value::Value raw = value::rawValue(signals[i], bytes);
                value::Value physical = signals[i].conversion->toPhysical(raw);
                extremes[i].add({std::move(raw), std::move(physical)});
            }
        }
    }
    std::vector<ExtremeTexts> texts(signals.size());
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const auto text = [&signal = signals[i]](const Sample& sample) {
            return xcp::printableText(value::valueText(signal, value::physicalValue(signal, sample.raw),
                                                       value::NumberStyle::exact));
        };
        if (extremes[i].least) texts[i].emplace(text(*extremes[i].least), text(*extremes[i].greatest));
    }
    return texts;
}

Result<void> printSignals(const GroupReader& group, const std::filesystem::path& directory,
                          value::NumberStyle style, Output& output) {
    const std::vector<SignalInfo>& signals = group.info().signals;
    auto extremes = style == value::NumberStyle::exact ? extremesFromRecords(group)
                                                       : extremesFromLevels(group, directory);
    if (!extremes) return extremes.error();
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const ExtremeTexts& texts = extremes.value()[i];
        output.append("  ");
        output.appendPadded(signals[i].name, 40);
        output.append(' ');
        output.appendPadded(value::dataTypeName(signals[i].coding.dataType), 13);
        if (!texts) {
            output.append(" no value");
        } else {
            output.append(fmt::format(" {:>12} {:>12}", texts->first, texts->second));
            if (!signals[i].conversion->unit().empty())
                output.append(" " + xcp::printableText(signals[i].conversion->unit()));
        }
        output.append('\n');
    }
    return {};
}

std::string secondsText(std::int64_t timeNs, const RecordingInfo& info) {
    return fmt::format("{:.3f} s", Span::secondsBetween(info.startHostNs, timeNs));
}

/// How long all outages were; one without an end lasts at least to what is known last, a record or a line.
std::string lengthText(const storage::RecordingEvents& events, const Span& span) {
    std::int64_t latestNs = span.lastNs;
    if (!events.clocks.empty()) latestNs = std::max(latestNs, events.clocks.back().hostNs);
    double seconds = 0;
    bool isKnown = true;
    for (const storage::Outage& outage : events.outages) {
        seconds +=
            Span::secondsBetween(outage.beginNs, outage.endNs.value_or(std::max(latestNs, outage.beginNs)));
        isKnown = isKnown && outage.endNs.has_value();
    }
    if (!isKnown && seconds == 0) return "length not known";
    return fmt::format("{}{:.3f} s in all", isKnown ? "" : "at least ", seconds);
}

void printOutages(const storage::RecordingEvents& events, const RecordingInfo& info, const Span& span,
                  Output& output) {
    using File = storage::RecordingEvents::File;
    // An older program noted none.
    if (events.file == File::absent) return;
    if (!events.trouble.empty()) {
        output.append("outages        not known: " + xcp::printableText(events.trouble) + "\n");
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
}

/// How far UTC and the clock of the timestamps have moved apart since the start.
void printClocks(const storage::RecordingEvents& events, const RecordingInfo& info, Output& output) {
    if (events.clocks.size() < 2) return;
    const storage::ClockPair& first = events.clocks.front();
    const storage::ClockPair& last = events.clocks.back();
    const double moved =
        Span::secondsBetween(first.utcNs, last.utcNs) - Span::secondsBetween(first.hostNs, last.hostNs);
    constexpr double kWorthTelling = 0.001;
    if (std::fabs(moved) < kWorthTelling) return;
    output.append(fmt::format("UTC            moved by {:+.3f} s against the recording's clock until {}\n",
                              moved, secondsText(last.hostNs, info)));
}

Result<void> printGroup(const GroupReader& group, const Span& span, const storage::RecordingReader& recording,
                        value::NumberStyle style, Output& output) {
    const std::int64_t cycle = group.info().cycleNs;
    output.append(fmt::format("group {:<8} {}, {}\n", group.number(), xcp::printableText(group.info().name),
                              cycleText(cycle)));
    printCounts(group, span, recording.info(), output);
    if (cycle > 0) {
        auto gaps = storage::findGaps(recording.directory(), group);
        if (!gaps) return gaps.error();
        output.append("  gaps         " + gapText(gaps.value(), recording.info()) + "\n");
    } else {
        output.append("  gaps         not known, no cycle says when the next record is due\n");
    }
    return printSignals(group, recording.directory(), style, output);
}

struct OpenedGroup {
    GroupReader reader;
    Span span;
};

Result<OpenedGroup> openGroup(const storage::RecordingReader& recording, std::size_t number) {
    auto reader = recording.openGroup(number);
    if (!reader) return reader.error();
    auto span = spanOf(reader.value());
    if (!span) return span.error();
    return OpenedGroup{std::move(reader).value(), span.value()};
}

void printHead(const storage::RecordingReader& recording, const Span& span, bool beingWritten,
               Output& output) {
    const RecordingInfo& info = recording.info();
    output.append("recording      " + xcp::printableText(info.name) +
                  (beingWritten ? ", still being recorded" : "") + "\n");
    const std::string source = info.source.empty() ? "" : " (" + info.source + ")";
    output.append("ECU            " + xcp::printableText(info.ecu + source) + "\n");
    output.append("start          " + storage::utcText(info.startHostNs, info, 3) + "\n");
    output.append(fmt::format("duration       {:.3f} s\n", span.seconds()));
    output.append("size           " + sizeText(directorySize(recording.directory())) + "\n");
    const storage::RecordingEvents events = storage::readEvents(recording.directory(), info);
    printOutages(events, info, span, output);
    printClocks(events, info, output);
}

}  // namespace

std::string outageText(const storage::Outage& outage, const RecordingInfo& info) {
    return "from " + secondsText(outage.beginNs, info) + " to " +
           (outage.endNs ? secondsText(*outage.endNs, info) : std::string("the end")) + ": " +
           xcp::printableText(outage.reason + (outage.outcome.empty() ? "" : "; " + outage.outcome));
}

std::string physicalText(double value, const SignalInfo& signal) {
    // Physical and raw value of a verbal conversion are the same.
    if (const auto text = signal.conversion->verbalText(value)) return xcp::printableText(*text);
    return signal.conversion->formatPhysical(value);
}

int printOverview(const storage::RecordingReader& recording, value::NumberStyle style, Output& output) {
    int exitCode = 0;
    std::vector<OpenedGroup> groups;
    Span whole;
    bool beingWritten = false;
    for (std::size_t i = 0; i < recording.info().groups.size(); ++i) {
        auto group = openGroup(recording, i);
        if (!group) {
            printError("recording", group.error());
            exitCode = 1;
            continue;
        }
        whole.firstNs = std::min(whole.firstNs, group.value().span.firstNs);
        whole.lastNs = std::max(whole.lastNs, group.value().span.lastNs);
        beingWritten = beingWritten || group.value().reader.isBeingWritten();
        groups.push_back(std::move(group).value());
    }
    printHead(recording, whole, beingWritten, output);
    for (const OpenedGroup& group : groups) {
        if (auto printed = printGroup(group.reader, group.span, recording, style, output); !printed) {
            printError("recording", printed.error());
            exitCode = 1;
        }
    }
    return exitCode;
}

}  // namespace lm::cli
