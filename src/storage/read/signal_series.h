// One signal over time, as a plot wants it: its extremes stretch by stretch, from the summary levels.
//
// Threads: one at a time. Lifetime: borrows the group reader, which must stay in place, and the outages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_events.h"
#include "storage/read/group_reader.h"
#include "storage/read/pyramid_reader.h"

namespace lm::storage {

class SignalSeries {
  public:
    /// `signal` is a place in the group's "signals".
    SignalSeries(const GroupReader& group, std::size_t signal, const std::vector<Outage>& outages)
        : group_(group), signal_(signal), pyramid_(group), outages_(outages) {}

    const SignalInfo& info() const { return group_.info().signals[signal_]; }

    /// The extremes between two times; empty without a value. A value lasts until the next one, unless there
    /// is a gap or an outage between them. Errors: those of InputFile::readAt().
    Result<ValueRange> extremes(const TimeRange& times);
    /// The same of `count` stretches of equal length.
    Result<std::vector<ValueRange>> stretches(const TimeRange& times, std::size_t count);
    /// The extremes of a scale, which needs finite ends: of `count` stretches those that are, where
    /// `extremes`, which are those of `times`, are not.
    Result<ValueRange> finiteExtremes(const TimeRange& times, const ValueRange& extremes, std::size_t count);

  private:
    Result<RecordRange> recordsAt(const TimeRange& times) const;
    bool isWithinOutage(std::int64_t beforeNs, std::int64_t timeNs, std::int64_t nextNs) const;

    const GroupReader& group_;
    std::size_t signal_;
    PyramidReader pyramid_;
    const std::vector<Outage>& outages_;
};

}  // namespace lm::storage
