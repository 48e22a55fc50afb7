#include "cli/recording_overview.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <numeric>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <spdlog/fmt/fmt.h>

#include "cli/stop_signal.h"
#include "core/printable_text.h"
#include "storage/format/recording_events.h"
#include "storage/read/exact_extremes.h"
#include "storage/read/gap_finder.h"
#include "storage/read/pyramid_reader.h"
#include "storage/read/signal_selection.h"
#include "storage/write/part_keeper.h"
#include "value/conversion.h"

namespace lm::cli {
namespace {

using storage::GroupReader;
using storage::RecordingInfo;
using storage::SignalInfo;

Result<std::vector<SignalRange>> extremesFromLevels(const GroupReader& group) {
    const std::vector<SignalInfo>& signals = group.info().signals;
    std::vector<std::size_t> all(signals.size());
    std::iota(all.begin(), all.end(), 0U);
    auto extremes = storage::PyramidReader(group).extremes(group.all(), all);
    if (!extremes) return extremes.error();
    std::vector<SignalRange> shown(signals.size());
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const storage::ValueRange& range = extremes.value()[i];
        if (range.isEmpty()) continue;
        const auto extreme = [&signal = signals[i]](double value) {
            return Extreme{value, physicalText(value, signal)};
        };
        shown[i].emplace(extreme(range.minimum), extreme(range.maximum));
    }
    return shown;
}

Result<std::vector<SignalRange>> extremesFromRecords(const GroupReader& group) {
    const std::vector<SignalInfo>& signals = group.info().signals;
    auto extremes = storage::exactExtremes(group, stopToken());
    if (!extremes) return extremes.error();
    std::vector<SignalRange> shown(signals.size());
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const auto extreme = [&signal = signals[i]](const storage::Sample& sample) {
            return Extreme{value::toDouble(sample.physical),
                           value::valueText(signal, value::physicalValue(signal, sample.raw),
                                            value::NumberStyle::exact)};
        };
        const storage::ExactExtremes& found = extremes.value()[i];
        if (found.least) shown[i].emplace(extreme(*found.least), extreme(*found.greatest));
    }
    return shown;
}

Result<GroupOverview> openGroup(const storage::RecordingReader& recording, std::size_t number) {
    auto reader = recording.openGroup(number);
    if (!reader) return reader.error();
    auto span = reader.value().timeSpan();
    if (!span) return span.error();
    return GroupOverview{std::move(reader).value(), span.value()};
}

/// What is behind the counts of a group, as far as it can be read.
Result<void> lookInto(GroupOverview& group, value::NumberStyle style) {
    if (group.reader.info().cycleNs > 0) {
        auto gaps = storage::findGaps(group.reader);
        if (!gaps) return gaps.error();
        group.gaps = gaps.value();
    }
    auto ranges = style == value::NumberStyle::exact ? extremesFromRecords(group.reader)
                                                     : extremesFromLevels(group.reader);
    if (!ranges) return ranges.error();
    group.ranges = std::move(ranges).value();
    return {};
}

}  // namespace

std::string secondsText(std::int64_t timeNs, const RecordingInfo& info) {
    return fmt::format("{:.3f} s", secondsBetween(info.startHostNs, timeNs));
}

std::string triggerText(const storage::Trigger& trigger, const RecordingInfo& info) {
    return printableText("'" + trigger.text + "'") + " at " + secondsText(trigger.timeNs, info) +
           (trigger.isStart ? " began it" : " ended it");
}

std::string outageText(const storage::Outage& outage, const RecordingInfo& info) {
    return "from " + secondsText(outage.beginNs, info) + " to " +
           (outage.endNs ? secondsText(*outage.endNs, info) : std::string("the end")) + ": " +
           printableText((outage.ecu.empty() ? "" : outage.ecu + ": ") + outage.reason +
                         (outage.outcome.empty() ? "" : "; " + outage.outcome));
}

std::vector<Happening> happenings(const storage::RecordingEvents& events, const RecordingInfo& info) {
    std::vector<Happening> all;
    for (const storage::Marker& marker : events.markers)
        all.push_back({marker.timeNs, "marker", marker.text});
    for (const storage::ParameterWrite& write : events.writes)
        all.push_back(
            {write.timeNs, "written",
             fmt::format("{} = {}, before {}, by {}", write.name, write.after, write.before, write.by)});
    std::stable_sort(all.begin(), all.end(),
                     [](const Happening& a, const Happening& b) { return a.timeNs < b.timeNs; });
    for (Happening& one : all)
        one.text = fmt::format("at {}: {}", secondsText(one.timeNs, info), printableText(one.text));
    return all;
}

std::string physicalText(double value, const SignalInfo& signal) {
    // Physical and raw value of a verbal conversion are the same.
    if (const auto text = signal.conversion->verbalText(value)) return std::string(*text);
    return signal.conversion->formatPhysical(value);
}

RecordingOverview overviewOf(const storage::RecordingReader& recording, value::NumberStyle style,
                             const std::function<void(const Error&)>& fail) {
    RecordingOverview overview{recording};
    for (std::size_t i = 0; i < recording.info().groups.size(); ++i) {
        auto opened = openGroup(recording, i);
        if (!opened) {
            fail(opened.error());
            continue;
        }
        GroupOverview group = std::move(opened).value();
        overview.span.add(group.span);
        overview.beingWritten = overview.beingWritten || group.reader.isBeingWritten();
        overview.groups.push_back(std::move(group));
    }
    overview.bytes = storage::directoryBytes(recording.directory());
    for (const storage::RecordingPart& part : recording.more())
        overview.bytes += storage::directoryBytes(part.directory);
    overview.events = recording.events();
    overview.breaks = storage::findBreaks(recording);
    for (GroupOverview& group : overview.groups) {
        if (auto looked = lookInto(group, style); !looked) fail(looked.error());
    }
    return overview;
}

}  // namespace lm::cli
