#include "cli/recording_plot.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include <spdlog/fmt/fmt.h>

#include "cli/message_output.h"
#include "cli/recording_overview.h"
#include "cli/stop_signal.h"
#include "core/printable_text.h"
#include "core/text.h"
#include "storage/format/recording_events.h"
#include "storage/read/signal_selection.h"
#include "storage/read/signal_series.h"

namespace lm::cli {
namespace {

using storage::RecordingReader;
using storage::SignalPlace;
using storage::TimeRange;

constexpr std::int64_t kEndless = std::numeric_limits<std::int64_t>::max();

/// What the options leave of the recorded times.
Result<TimeRange> wantedTimes(const RecordingReader& recording, const PlotOptions& options) {
    const storage::TimeSpan recorded = recording.timeSpan();
    if (recorded.isEmpty()) {
        return Error{ErrorCode::notFound, "no records in " + recording.directory().string()};
    }
    const std::int64_t endNs = recorded.lastNs < kEndless ? recorded.lastNs + 1 : kEndless;
    TimeRange times{recorded.firstNs, endNs};
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
                    seconds(recorded.firstNs), seconds(endNs))};
}

std::string valueLabel(double value, const storage::SignalInfo& signal, std::size_t width) {
    std::string text = printableText(physicalText(value, signal));
    return characterCount(text) <= width ? text : formatGeneral(value);
}

std::string timeLabel(std::int64_t timeNs, const storage::RecordingInfo& info, double spanNs) {
    const int decimals = spanNs < 1e5 ? 9 : spanNs < 1e8 ? 6 : 3;
    return formatFixed((static_cast<double>(timeNs) - static_cast<double>(info.startHostNs)) / 1e9,
                       decimals) +
           " s";
}

Result<void> plotSignal(const RecordingReader& recording, const SignalPlace& place, const TimeRange& times,
                        const std::vector<storage::Outage>& outages, const PlotStyle& style, Output& output) {
    auto group = recording.openGroup(place.group);
    if (!group) return group.error();
    storage::SignalSeries signal(group.value(), place.signal, outages);
    const std::string& unit = signal.info().conversion->unit();
    output.append(printableText(signal.info().name + (unit.empty() ? "" : " (" + unit + ")") + ", " +
                                group.value().info().name));
    auto whole = signal.extremes(times);
    if (!whole) return whole.error();
    if (whole.value().isEmpty()) {
        output.append(": no value in this time\n");
        return {};
    }
    output.append('\n');
    auto range = signal.finiteExtremes(times, whole.value(), style.width);
    if (!range) return range.error();
    const double span = static_cast<double>(times.endNs) - static_cast<double>(times.fromNs);
    const PlotLabels labels{valueLabel(range.value().maximum, signal.info(), style.width / 4),
                            valueLabel(range.value().minimum, signal.info(), style.width / 4),
                            timeLabel(times.fromNs, recording.info(), span),
                            timeLabel(times.endNs - 1, recording.info(), span)};
    auto columns = signal.stretches(times, plotColumns(style, labels));
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

int plotSignals(const RecordingReader& recording, const PlotOptions& options, const PlotStyle& style,
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
    const storage::RecordingEvents events = recording.events();
    if (!events.trouble.empty()) {
        printMessage("outages not known: " + printableText(events.trouble) + "\n");
    }
    int exitCode = 0;
    for (std::size_t i = 0; i < places.value().size() && !stopRequested(); ++i) {
        if (i > 0) output.append('\n');
        auto plotted = plotSignal(recording, places.value()[i], times.value(), events.outages, style, output);
        if (plotted) continue;
        printError("recording", plotted.error());
        exitCode = 1;
    }
    // The last outage may begin behind the last record.
    TimeRange told = times.value();
    if (!options.to) told.endNs = kEndless;
    for (const storage::Outage& outage : events.outages) {
        if (storage::overlaps(outage, told))
            output.append("outage " + outageText(outage, recording.info()) + "\n");
    }
    for (const Happening& one : happenings(events, recording.info())) {
        if (one.timeNs >= told.fromNs && one.timeNs < told.endNs)
            output.append(fmt::format("{} {}\n", one.kind, one.text));
    }
    return stopRequested() ? 1 : exitCode;
}

}  // namespace lm::cli
