#include "serve/series.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <map>
#include <utility>

#include <fmt/format.h>

#include "core/text.h"
#include "serve/column_series.h"
#include "serve/little_bytes.h"
#include "serve/window_frame.h"
#include "value/element.h"

namespace lm::serve {
namespace {

constexpr std::size_t kMostColumns = 8192;
constexpr std::size_t kMostSignals = 64;
constexpr std::int64_t kMostNs = 1'000'000'000'000'000'000;
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kExact = 1;

/// Damaged recordings may begin at any time.
std::int64_t hostTime(const storage::RecordingInfo& info, std::int64_t ns) {
    std::int64_t sum = 0;
    if (!__builtin_add_overflow(info.startHostNs, ns, &sum)) return sum;
    return ns < 0 ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

std::vector<Break> outagesOf(const OpenedRecording& recording, const std::string& ecu) {
    std::vector<Break> breaks;
    for (const storage::Outage& outage : recording.events().outages) {
        if (!ecu.empty() && !outage.ecu.empty() && outage.ecu != ecu) continue;
        breaks.push_back({outage.beginNs, outage.endNs.value_or(std::numeric_limits<std::int64_t>::max())});
    }
    return breaks;
}

void pad(std::string& bytes) {
    bytes.append((8 - bytes.size() % 8) % 8, '\0');
}

std::string headOfSignal(std::size_t place, std::uint32_t flags, std::size_t count) {
    std::string bytes;
    for (const std::uint64_t number : {std::uint64_t{place}, std::uint64_t{flags}, std::uint64_t{count}})
        appendLittle(bytes, static_cast<std::uint32_t>(number));
    appendLittle(bytes, std::uint32_t{0});
    return bytes;
}

std::string columnsText(std::size_t place, const std::vector<Filled>& filled,
                        const std::vector<Column>& columns) {
    std::string bytes = headOfSignal(place, 0, columns.size());
    for (const Column& column : columns)
        appendFloat(bytes, floatBelow(column.least));
    for (const Column& column : columns)
        appendFloat(bytes, floatAbove(column.greatest));
    for (const Column& column : columns)
        appendFloat(bytes, nearestFloat(column.last));
    for (const Filled one : filled)
        bytes += static_cast<char>(one);
    pad(bytes);
    return bytes;
}

/// All samples of some signals of a group, read once.
class Samples {
  public:
    explicit Samples(std::size_t signals) : values_(signals) {}

    Result<void> read(const OpenedGroup& group, const ColumnSeries& series, std::int64_t startNs,
                      storage::RecordRange records, const std::vector<std::size_t>& signals) {
        storage::RecordStream stream = group.reader.read(records);
        std::int64_t beforeNs = 0;
        for (;;) {
            auto batch = stream.next();
            if (!batch) return batch.error();
            if (batch.value().count == 0) return {};
            for (std::size_t n = 0; n < batch.value().count; ++n) {
                const std::int64_t timeNs = batch.value().timestampNs(n);
                broken_ += static_cast<char>(!times_.empty() && series.isBroken(beforeNs, timeNs) ? 1 : 0);
                times_.push_back(static_cast<double>(storage::timeBetween(startNs, timeNs)));
                beforeNs = timeNs;
                for (std::size_t i = 0; i < signals.size(); ++i) {
                    const storage::SignalInfo& signal = group.reader.info().signals[signals[i]];
                    values_[i].push_back(signal.conversion->toPhysical(
                        value::decodeRaw(batch.value().data(n) + signal.recordOffset, signal.coding)));
                }
            }
        }
    }

    std::string text(std::size_t place, std::size_t signal) const {
        std::string bytes = headOfSignal(place, kExact, times_.size());
        for (const double time : times_)
            appendDouble(bytes, time);
        for (const double value : values_[signal])
            appendDouble(bytes, value);
        bytes += broken_;
        pad(bytes);
        return bytes;
    }

  private:
    std::vector<double> times_;
    std::string broken_;
    std::vector<std::vector<double>> values_;
};

struct OfGroup {
    std::vector<std::size_t> signals;  ///< in the group
    std::vector<std::size_t> at;       ///< in the wish
};

/// Fills the texts of the signals of one group.
Result<void> addGroup(OpenedRecording& recording, std::size_t number, const OfGroup& wanted,
                      const SeriesWish& wish, std::vector<std::string>& texts) {
    Result<OpenedGroup*> group = recording.group(number);
    if (!group) return group.error();
    const Result<const storage::Gaps*> gaps = recording.gaps(number);
    if (!gaps) return gaps.error();
    const storage::RecordingInfo& info = recording.info();
    ColumnSeries series(*group.value(), *gaps.value(), outagesOf(recording, info.groups[number].ecu));
    const std::int64_t fromNs = hostTime(info, wish.fromNs);
    const std::int64_t toNs = hostTime(info, wish.toNs);
    const auto around = series.samplesAround(fromNs, toNs);
    if (!around) return around.error();
    if (around.value().count() <= 2 * wish.columns) {
        Samples samples(wanted.signals.size());
        auto read = samples.read(*group.value(), series, info.startHostNs, around.value(), wanted.signals);
        if (!read) return read;
        for (std::size_t i = 0; i < wanted.at.size(); ++i)
            texts[wanted.at[i]] = samples.text(wish.places[wanted.at[i]], i);
        return {};
    }
    const auto columns = series.columns(fromNs, toNs, wish.columns, wanted.signals);
    if (!columns) return columns.error();
    for (std::size_t i = 0; i < wanted.at.size(); ++i) {
        texts[wanted.at[i]] =
            columnsText(wish.places[wanted.at[i]], columns.value().filled, columns.value().values[i]);
    }
    return {};
}

}  // namespace

Result<PlaceInGroup> placeInGroup(const storage::RecordingInfo& info, std::size_t place) {
    std::size_t left = place;
    for (std::size_t group = 0; group < info.groups.size(); ++group) {
        const std::size_t count = info.groups[group].signals.size();
        if (left < count) return PlaceInGroup{group, left};
        left -= count;
    }
    return Error{ErrorCode::notFound, fmt::format("signals: the recording has no signal {}", place)};
}

Result<std::vector<std::size_t>> placesOf(const std::string& text, std::size_t most) {
    std::vector<std::size_t> places;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find(','), rest.size());
        const auto place = parseUnsigned(rest.substr(0, end), NumberBase::decimal, UINT32_MAX);
        if (!place) return Error{ErrorCode::invalidArgument, "signals: " + place.error().message};
        if (places.size() == most)
            return Error{ErrorCode::invalidArgument, fmt::format("signals: more than {}", most)};
        places.push_back(static_cast<std::size_t>(place.value()));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return places;
}

Result<std::int64_t> nanosecondsOf(const http::Request& request, const char* name) {
    const std::string text = request.queryText(name);
    std::int64_t ns = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), ns);
    if (failure != std::errc() || end != text.data() + text.size() || ns < -kMostNs || ns > kMostNs) {
        return Error{ErrorCode::invalidArgument,
                     fmt::format("{}: '{}' is no whole number of nanoseconds from the start", name, text)};
    }
    return ns;
}

Result<SeriesWish> seriesWishOf(const http::Request& request) {
    SeriesWish wish;
    auto places = placesOf(request.queryText("signals"), kMostSignals);
    if (!places) return places.error();
    wish.places = std::move(places).value();
    const auto from = nanosecondsOf(request, "from");
    if (!from) return from.error();
    const auto to = nanosecondsOf(request, "to");
    if (!to) return to.error();
    if (from.value() >= to.value()) return Error{ErrorCode::invalidArgument, "from: not before to"};
    const auto columns = parseUnsigned(request.queryText("columns"), NumberBase::decimal, kMostColumns);
    if (!columns || columns.value() == 0) {
        return Error{ErrorCode::invalidArgument, fmt::format("columns: '{}' is no number from 1 to {}",
                                                             request.queryText("columns"), kMostColumns)};
    }
    wish.fromNs = from.value();
    wish.toNs = to.value();
    wish.columns = static_cast<std::size_t>(columns.value());
    return wish;
}

Result<std::string> seriesOf(OpenedRecording& recording, const SeriesWish& wish) {
    std::map<std::size_t, OfGroup> groups;
    for (std::size_t i = 0; i < wish.places.size(); ++i) {
        const auto place = placeInGroup(recording.info(), wish.places[i]);
        if (!place) return place.error();
        OfGroup& group = groups[place.value().group];
        group.signals.push_back(place.value().signal);
        group.at.push_back(i);
    }
    std::vector<std::string> texts(wish.places.size());
    for (const auto& [number, wanted] : groups) {
        if (auto added = addGroup(recording, number, wanted, wish, texts); !added) return added.error();
    }
    std::string bytes;
    for (const std::uint64_t number :
         {std::uint64_t{kVersion}, std::uint64_t{texts.size()}, std::uint64_t{wish.columns}})
        appendLittle(bytes, static_cast<std::uint32_t>(number));
    appendLittle(bytes, std::uint32_t{0});
    appendDouble(bytes, static_cast<double>(wish.fromNs));
    appendDouble(bytes, static_cast<double>(wish.toNs));
    for (const std::string& text : texts)
        bytes += text;
    return bytes;
}

}  // namespace lm::serve
