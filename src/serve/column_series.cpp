#include "serve/column_series.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "value/element.h"

namespace lm::serve {
namespace {

/// An outage begins when the last record came, which may lie a little before or behind its timestamp.
constexpr std::int64_t kSlackNs = 10'000'000;
constexpr std::int64_t kForEver = std::numeric_limits<std::int64_t>::max();

/// It may hold records: an ECU that was only out of reach goes on sending.
bool liesBetween(const Break& outage, std::int64_t beforeNs, std::int64_t nextNs) {
    if (outage.beginNs >= nextNs) return false;
    if (outage.beginNs >= beforeNs) return true;
    const bool endsBefore =
        outage.endNs == kForEver || storage::timeBetween(outage.endNs, nextNs) >= -kSlackNs;
    return endsBefore && storage::timeBetween(outage.beginNs, beforeNs) <= kSlackNs;
}

}  // namespace

std::int64_t columnBegin(std::int64_t fromNs, std::int64_t toNs, std::size_t count, std::size_t i) {
    const auto span = static_cast<std::uint64_t>(storage::timeBetween(fromNs, toNs));
    const std::uint64_t passed = span / count * i + (span % count * i + count - 1) / count;
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(fromNs) + passed);
}

Result<storage::RecordRange> ColumnSeries::samplesAround(std::int64_t fromNs, std::int64_t toNs) const {
    auto found = group_.reader.find({fromNs, toNs});
    if (!found) return found;
    storage::RecordRange records = found.value();
    if (records.first > 0) --records.first;
    if (records.end < group_.reader.recordCount()) ++records.end;
    return records;
}

bool ColumnSeries::isBroken(std::int64_t beforeNs, std::int64_t nextNs) const {
    return storage::isGap(beforeNs, nextNs, group_.reader.info().cycleNs) ||
           std::any_of(outages_.begin(), outages_.end(),
                       [&](const Break& outage) { return liesBetween(outage, beforeNs, nextNs); });
}

/// Whether the value before record `next` lasts at a time between the two.
Result<bool> ColumnSeries::isHeld(std::uint64_t next, std::int64_t timeNs) {
    if (next == 0 || next >= group_.reader.recordCount()) return false;
    if (!neighbours_.any || neighbours_.next != next) {
        const auto before = group_.reader.timestampNs(next - 1);
        if (!before) return before.error();
        const auto after = group_.reader.timestampNs(next);
        if (!after) return after.error();
        neighbours_ = {true, next, before.value(), after.value()};
    }
    if (storage::isGap(neighbours_.beforeNs, neighbours_.nextNs, group_.reader.info().cycleNs)) return false;
    return std::none_of(outages_.begin(), outages_.end(), [&](const Break& outage) {
        return outage.beginNs <= timeNs && liesBetween(outage, neighbours_.beforeNs, neighbours_.nextNs);
    });
}

bool ColumnSeries::hasBreakEnd(std::int64_t fromNs, std::int64_t toNs) const {
    const auto first =
        std::lower_bound(gaps_.gaps.begin(), gaps_.gaps.end(), fromNs,
                         [](const storage::Gap& gap, std::int64_t at) { return gap.endNs < at; });
    if (first != gaps_.gaps.end() && first->endNs < toNs) return true;
    return std::any_of(outages_.begin(), outages_.end(),
                       [&](const Break& outage) { return outage.endNs >= fromNs && outage.endNs < toNs; });
}

Result<void> ColumnSeries::lastValues(std::uint64_t record, std::span<const std::size_t> signals,
                                      std::vector<double>& values) const {
    storage::RecordStream stream = group_.reader.read({record, record + 1}, 1);
    auto batch = stream.next();
    if (!batch) return batch.error();
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const storage::SignalInfo& signal = group_.reader.info().signals[signals[i]];
        values[i] = signal.conversion->toPhysical(
            value::decodeRaw(batch.value().data(0) + signal.recordOffset, signal.coding));
    }
    return {};
}

Result<void> ColumnSeries::addValues(storage::RecordRange records, std::span<const std::size_t> signals,
                                     Columns& columns) {
    constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
    std::vector<double> last(signals.size());
    if (auto read = lastValues(records.end - 1, signals, last); !read) return read;
    auto ranges = group_.pyramid.extremes(records, signals);
    if (!ranges) return ranges.error();
    for (std::size_t i = 0; i < signals.size(); ++i) {
        const storage::ValueRange& range = ranges.value()[i];
        columns.values[i].push_back(
            {range.isEmpty() ? kNone : range.minimum, range.isEmpty() ? kNone : range.maximum, last[i]});
    }
    return {};
}

Result<ColumnSeries::Columns> ColumnSeries::columns(std::int64_t fromNs, std::int64_t toNs, std::size_t count,
                                                    std::span<const std::size_t> signals) {
    constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
    Columns columns;
    columns.values.resize(signals.size());
    neighbours_ = {};
    auto begin = group_.reader.find({fromNs, kForEver});
    if (!begin) return begin.error();
    std::uint64_t first = begin.value().first;
    std::vector<double> heldValues(signals.size());
    std::uint64_t heldOf = kForEver;
    for (std::size_t i = 0; i < count; ++i) {
        const std::int64_t beginNs = columnBegin(fromNs, toNs, count, i);
        const std::int64_t endNs = columnBegin(fromNs, toNs, count, i + 1);
        auto found = group_.reader.find({endNs, kForEver});
        if (!found) return found.error();
        const std::uint64_t end = std::max(first, found.value().first);
        if (end > first) {
            if (auto added = addValues({first, end}, signals, columns); !added) return added.error();
            columns.filled.push_back(hasBreakEnd(beginNs, endNs) ? Filled::afterBreak : Filled::samples);
        } else {
            const auto held = isHeld(first, beginNs);
            if (!held) return held.error();
            columns.filled.push_back(held.value() ? Filled::held : Filled::nothing);
            if (held.value() && heldOf != first) {
                if (auto read = lastValues(first - 1, signals, heldValues); !read) return read.error();
                heldOf = first;
            }
            for (std::size_t k = 0; k < signals.size(); ++k) {
                const double value = held.value() ? heldValues[k] : kNone;
                columns.values[k].push_back({value, value, value});
            }
        }
        first = end;
    }
    return columns;
}

}  // namespace lm::serve
