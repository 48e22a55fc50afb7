// The columns and samples of signals of one group.
//
// Threads: as of the opened group. Lifetime: borrows group and breaks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "core/result.h"
#include "serve/opened_recording.h"

namespace lm::serve {

/// A stretch without samples: nothing is known of the values in it.
struct Break {
    std::int64_t beginNs = 0;
    std::int64_t endNs = 0;  ///< the last of all times when it has no end
};

/// What stands in a column.
enum class Filled : std::uint8_t {
    nothing = 0,     ///< no value is known
    samples = 1,     ///< the values of its samples
    held = 2,        ///< the last value before, which lasts
    afterBreak = 3,  ///< samples, with a gap or an outage before or between them
};

struct Column {
    double least = 0;
    double greatest = 0;
    double last = 0;
};

class ColumnSeries {
  public:
    /// `breaks`: the outages of the group.
    ColumnSeries(OpenedGroup& group, const storage::Gaps& gaps, std::vector<Break> outages)
        : group_(group), gaps_(gaps), outages_(std::move(outages)) {}

    /// With one sample before `fromNs` and one after `toNs` when there are.
    Result<storage::RecordRange> samplesAround(std::int64_t fromNs, std::int64_t toNs) const;
    /// True when nothing is known of the time between two samples that follow each other.
    bool isBroken(std::int64_t beforeNs, std::int64_t nextNs) const;

    struct Columns {
        std::vector<Filled> filled;
        std::vector<std::vector<Column>> values;  ///< of each signal those of all columns
    };
    Result<Columns> columns(std::int64_t fromNs, std::int64_t toNs, std::size_t count,
                            std::span<const std::size_t> signals);

  private:
    struct Neighbours {
        bool any = false;
        std::uint64_t next = 0;
        std::int64_t beforeNs = 0;
        std::int64_t nextNs = 0;
    };

    Result<bool> isHeld(std::uint64_t next, std::int64_t timeNs);
    bool hasBreakEnd(std::int64_t fromNs, std::int64_t toNs) const;
    Result<void> addValues(storage::RecordRange records, std::span<const std::size_t> signals,
                           Columns& columns);
    Result<void> lastValues(std::uint64_t record, std::span<const std::size_t> signals,
                            std::vector<double>& values) const;

    OpenedGroup& group_;
    const storage::Gaps& gaps_;
    const std::vector<Break> outages_;
    Neighbours neighbours_;
};

/// Where column `i` of `count` begins: the first nanosecond that is not before from + i (to - from) / count.
std::int64_t columnBegin(std::int64_t fromNs, std::int64_t toNs, std::size_t count, std::size_t i);

}  // namespace lm::serve
