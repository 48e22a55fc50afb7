#include "cli/recording_plot.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include <spdlog/fmt/fmt.h>

#include "cli/message_output.h"
#include "cli/recording_overview.h"
#include "cli/stop_signal.h"
#include "core/text.h"
#include "storage/format/recording_events.h"
#include "storage/read/gap_finder.h"
#include "storage/read/pyramid_reader.h"
#include "storage/read/signal_selection.h"
#include "xcp/text_lines.h"

namespace lm::cli {
namespace {

using storage::GroupReader;
using storage::RecordingReader;
using storage::RecordRange;
using storage::SignalPlace;
using storage::TimeRange;
using storage::ValueRange;

constexpr std::int64_t kEndless = std::numeric_limits<std::int64_t>::max();

using Outages = std::vector<storage::Outage>;
/// An outage begins when the last record came, which may lie a little before or behind its timestamp.
constexpr std::int64_t kOutageSlackNs = 10'000'000;

/// One signal, stretch by stretch.
class PlottedSignal {
  public:
    PlottedSignal(const RecordingReader& recording, const GroupReader& group, std::size_t signal,
                  const Outages& outages)
        : group_(group), signal_(signal), pyramid_(recording.directory(), group), outages_(outages) {}

    const storage::SignalInfo& info() const { return group_.info().signals[signal_]; }

    /// The extremes between two times. A value lasts until the next one, unless there is a gap between them.
    Result<ValueRange> extremes(const TimeRange& times) {
        auto records = recordsAt(times);
        if (!records) return records.error();
        auto ranges = pyramid_.extremes(records.value(), {&signal_, 1});
        if (!ranges) return ranges.error();
        return ranges.value()[0];
    }

    Result<std::vector<ValueRange>> columns(const TimeRange& times, std::size_t count) {
        std::vector<ValueRange> columns;
        const auto span = static_cast<double>(static_cast<std::uint64_t>(times.endNs) -
                                              static_cast<std::uint64_t>(times.fromNs));
        std::int64_t from = times.fromNs;
        for (std::size_t i = 1; i <= count; ++i) {
            const double passed = span * static_cast<double>(i) / static_cast<double>(count);
            const auto end = i == count ? times.endNs
                                        : static_cast<std::int64_t>(static_cast<std::uint64_t>(times.fromNs) +
                                                                    static_cast<std::uint64_t>(passed));
            auto range = extremes({from, end});
            if (!range) return range.error();
            columns.push_back(range.value());
            from = end;
        }
        return columns;
    }

  private:
    /// With the record before, when its value lasts into that time.
    Result<RecordRange> recordsAt(const TimeRange& times) const {
        auto found = group_.find(times);
        if (!found) return found.error();
        RecordRange records = found.value();
        if (records.first == 0 || records.first == group_.recordCount()) return records;
        auto before = group_.timestampNs(records.first - 1);
        if (!before) return before.error();
        auto next = group_.timestampNs(records.first);
        if (!next) return next.error();
        const bool isGap = storage::isGap(before.value(), next.value(), group_.info().cycleNs) ||
                           isWithinOutage(before.value(), times.fromNs, next.value());
        if (!isGap) --records.first;
        return records;
    }

    /// The value before an outage is not known to have lasted.
    bool isWithinOutage(std::int64_t beforeNs, std::int64_t timeNs, std::int64_t nextNs) const {
        return std::any_of(outages_.begin(), outages_.end(), [&](const storage::Outage& outage) {
            return outage.beginNs >= beforeNs - kOutageSlackNs && outage.beginNs <= timeNs &&
                   outage.beginNs < nextNs;
        });
    }

    const GroupReader& group_;
    std::size_t signal_;
    storage::PyramidReader pyramid_;
    const Outages& outages_;
};

/// From the first record of all groups to just behind the last one; empty without records. Groups that cannot
/// be read are for the plots to report.
std::optional<TimeRange> recordedTimes(const RecordingReader& recording) {
    std::optional<TimeRange> times;
    for (std::size_t i = 0; i < recording.info().groups.size(); ++i) {
        auto group = recording.openGroup(i);
        if (!group || group.value().recordCount() == 0) continue;
        auto first = group.value().timestampNs(0);
        auto last = group.value().timestampNs(group.value().recordCount() - 1);
        if (!first || !last) continue;
        if (!times) times = TimeRange{first.value(), first.value()};
        times->fromNs = std::min(times->fromNs, first.value());
        times->endNs = std::max(times->endNs, last.value() < kEndless ? last.value() + 1 : kEndless);
    }
    return times;
}

/// What the options leave of the recorded times.
Result<TimeRange> wantedTimes(const RecordingReader& recording, const RecordingOptions& options) {
    const auto recorded = recordedTimes(recording);
    if (!recorded) return Error{ErrorCode::notFound, "no records in " + recording.directory().string()};
    TimeRange times = *recorded;
    if (options.from) {
        auto from = storage::parseRecordingTime(*options.from, recording.info());
        if (!from) return Error{from.error().code, "--from: " + from.error().text()};
        times.fromNs = std::max(times.fromNs, from.value());
    }
    if (options.to) {
        auto to = storage::parseRecordingTime(*options.to, recording.info());
        if (!to) return Error{to.error().code, "--to: " + to.error().text()};
        times.endNs = std::min(times.endNs, to.value());
    }
    if (times.fromNs < times.endNs) return times;
    const auto seconds = [&recording](std::int64_t time) {
        return (static_cast<double>(time) - static_cast<double>(recording.info().startHostNs)) / 1e9;
    };
    return Error{
        ErrorCode::invalidArgument,
        fmt::format("--from and --to leave nothing of the recording, which goes from {:.3f} s to {:.3f} s",
                    seconds(recorded->fromNs), seconds(recorded->endNs))};
}

/// A scale needs finite ends: what is infinite lies beyond the border.
Result<ValueRange> finiteRange(PlottedSignal& signal, const TimeRange& times, const ValueRange& range,
                               std::size_t columns) {
    if (std::isfinite(range.minimum) && std::isfinite(range.maximum)) return range;
    auto parts = signal.columns(times, columns);
    if (!parts) return parts.error();
    ValueRange finite;
    for (const ValueRange& part : parts.value()) {
        for (const double end : {part.minimum, part.maximum}) {
            if (!std::isfinite(end)) continue;
            finite.minimum = std::min(finite.minimum, end);
            finite.maximum = std::max(finite.maximum, end);
        }
    }
    return finite.isEmpty() ? ValueRange{-1, 1} : finite;
}

std::string valueLabel(double value, const storage::SignalInfo& signal, std::size_t width) {
    std::string text = physicalText(value, signal);
    return characterCount(text) <= width ? text : formatGeneral(value);
}

std::string timeLabel(std::int64_t timeNs, const storage::RecordingInfo& info, double spanNs) {
    const int decimals = spanNs < 1e5 ? 9 : spanNs < 1e8 ? 6 : 3;
    return formatFixed((static_cast<double>(timeNs) - static_cast<double>(info.startHostNs)) / 1e9,
                       decimals) +
           " s";
}

Result<void> plotSignal(const RecordingReader& recording, const SignalPlace& place, const TimeRange& times,
                        const Outages& outages, const PlotStyle& style, Output& output) {
    auto group = recording.openGroup(place.group);
    if (!group) return group.error();
    PlottedSignal signal(recording, group.value(), place.signal, outages);
    const std::string& unit = signal.info().conversion->unit();
    output.append(xcp::printableText(signal.info().name + (unit.empty() ? "" : " (" + unit + ")") + ", " +
                                     group.value().info().name));
    auto whole = signal.extremes(times);
    if (!whole) return whole.error();
    if (whole.value().isEmpty()) {
        output.append(": no value in this time\n");
        return {};
    }
    output.append('\n');
    auto range = finiteRange(signal, times, whole.value(), style.width);
    if (!range) return range.error();
    const double span = static_cast<double>(times.endNs) - static_cast<double>(times.fromNs);
    const PlotLabels labels{valueLabel(range.value().maximum, signal.info(), style.width / 4),
                            valueLabel(range.value().minimum, signal.info(), style.width / 4),
                            timeLabel(times.fromNs, recording.info(), span),
                            timeLabel(times.endNs - 1, recording.info(), span)};
    auto columns = signal.columns(times, plotColumns(style, labels));
    if (!columns) return columns.error();
    output.append(plotText(columns.value(), range.value(), style, labels));
    return {};
}

}  // namespace

PlotStyle plotStyleFor(int descriptor) {
    PlotStyle style;
    if (::isatty(descriptor) == 0) return style;
    style.braille = true;
    winsize size{};
    if (::ioctl(descriptor, TIOCGWINSZ, &size) != 0) return style;
    constexpr std::size_t kLeastWidth = 20;
    constexpr std::size_t kGreatestWidth = 1000;
    if (size.ws_col > 0)
        style.width = std::min(std::max<std::size_t>(size.ws_col, kLeastWidth), kGreatestWidth);
    // Room for title, axis and prompt.
    if (size.ws_row > 0) style.height = std::min(std::max<std::size_t>(size.ws_row, 8) - 5, style.height);
    return style;
}

int plotSignals(const RecordingReader& recording, const RecordingOptions& options, const PlotStyle& style,
                Output& output) {
    auto places = storage::selectSignals(recording.info(), options.signals);
    if (!places) {
        printError("recording", places.error());
        return 1;
    }
    auto times = wantedTimes(recording, options);
    if (!times) {
        printError("recording", times.error());
        return 1;
    }
    const storage::RecordingEvents events = storage::readEvents(recording.directory(), recording.info());
    if (!events.trouble.empty()) {
        printMessage("outages not known: " + xcp::printableText(events.trouble) + "\n");
    }
    const Outages& outages = events.outages;
    int exitCode = 0;
    for (std::size_t i = 0; i < places.value().size() && !stopRequested(); ++i) {
        if (i > 0) output.append('\n');
        auto plotted = plotSignal(recording, places.value()[i], times.value(), outages, style, output);
        if (plotted) continue;
        printError("recording", plotted.error());
        exitCode = 1;
    }
    // The last outage may begin behind the last record.
    TimeRange told = times.value();
    if (!options.to) told.endNs = kEndless;
    for (const storage::Outage& outage : outages) {
        if (storage::overlaps(outage, told))
            output.append("outage " + outageText(outage, recording.info()) + "\n");
    }
    return stopRequested() ? 1 : exitCode;
}

}  // namespace lm::cli
