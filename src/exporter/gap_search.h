// Gaps in the records of a cyclic group: more than 1.5 cycles from one record to the next.
//
// Threads: one at a time. Lifetime: owns what it found; batches are borrowed during the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "storage/read/group_reader.h"

namespace lm::exporter {

struct Gap {
    std::int64_t beginNs = 0;  ///< of the last record before
    std::int64_t endNs = 0;    ///< of the first record after
};

struct Gaps {
    static constexpr std::size_t kMaxKept = 10000;

    std::vector<Gap> gaps;    ///< the first kMaxKept
    std::uint64_t count = 0;  ///< of all
};

/// Sees all records of a range in order, whichever of them are exported.
class GapSearch {
  public:
    /// `cycleNs` 0: a group that is not cyclic has no gaps.
    explicit GapSearch(std::int64_t cycleNs) : cycleNs_(cycleNs) {}

    void look(const storage::RecordBatch& batch);
    Gaps take() { return std::move(found_); }

  private:
    std::int64_t longestStep(const storage::RecordBatch& batch, std::size_t begin, std::size_t end) const;
    void lookClosely(const storage::RecordBatch& batch, std::size_t begin, std::size_t end);

    const std::int64_t cycleNs_;
    bool begun_ = false;
    std::int64_t lastNs_ = 0;
    Gaps found_;
};

}  // namespace lm::exporter
