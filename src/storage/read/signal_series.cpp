#include "storage/read/signal_series.h"

#include <algorithm>
#include <cmath>

#include "storage/read/gap_search.h"

namespace lm::storage {
namespace {

/// An outage begins when the last record came, which may lie a little before or behind its timestamp.
constexpr std::int64_t kOutageSlackNs = 10'000'000;

}  // namespace

Result<ValueRange> SignalSeries::extremes(const TimeRange& times) {
    auto records = recordsAt(times);
    if (!records) return records.error();
    auto ranges = pyramid_.extremes(records.value(), {&signal_, 1});
    if (!ranges) return ranges.error();
    return ranges.value()[0];
}

Result<std::vector<ValueRange>> SignalSeries::stretches(const TimeRange& times, std::size_t count) {
    std::vector<ValueRange> stretches;
    const auto begin = static_cast<std::uint64_t>(times.fromNs);
    const auto span = static_cast<double>(static_cast<std::uint64_t>(times.endNs) - begin);
    std::int64_t from = times.fromNs;
    for (std::size_t i = 1; i <= count; ++i) {
        const double passed = span * static_cast<double>(i) / static_cast<double>(count);
        const auto end =
            i == count ? times.endNs : static_cast<std::int64_t>(begin + static_cast<std::uint64_t>(passed));
        auto range = extremes({from, end});
        if (!range) return range.error();
        stretches.push_back(range.value());
        from = end;
    }
    return stretches;
}

Result<ValueRange> SignalSeries::finiteExtremes(const TimeRange& times, const ValueRange& extremes,
                                                std::size_t count) {
    if (std::isfinite(extremes.minimum) && std::isfinite(extremes.maximum)) return extremes;
    auto parts = stretches(times, count);
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

/// With the record before, when its value lasts into that time.
Result<RecordRange> SignalSeries::recordsAt(const TimeRange& times) const {
    auto found = group_.find(times);
    if (!found) return found.error();
    RecordRange records = found.value();
    if (records.first == 0 || records.first == group_.recordCount()) return records;
    auto before = group_.timestampNs(records.first - 1);
    if (!before) return before.error();
    auto next = group_.timestampNs(records.first);
    if (!next) return next.error();
    const bool isEnded = isGap(before.value(), next.value(), group_.info().cycleNs) ||
                         isWithinOutage(before.value(), times.fromNs, next.value());
    if (!isEnded) --records.first;
    return records;
}

/// The value before an outage is not known to have lasted.
bool SignalSeries::isWithinOutage(std::int64_t beforeNs, std::int64_t timeNs, std::int64_t nextNs) const {
    return std::any_of(outages_.begin(), outages_.end(), [&](const Outage& outage) {
        return outage.beginNs >= beforeNs - kOutageSlackNs && outage.beginNs <= timeNs &&
               outage.beginNs < nextNs;
    });
}

}  // namespace lm::storage
