// Gaps in the records of a cyclic group: more than 1.5 cycles from one record to the next.
//
// Threads: one at a time. Lifetime: owns what it found; batches are borrowed during the call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "storage/read/group_reader.h"

namespace lm::storage {

/// True when more than 1.5 cycles lie between two neighbours; never for a cycle of 0 (not periodic).
bool isGap(std::int64_t earlierNs, std::int64_t laterNs, std::int64_t cycleNs);

/// Damaged timestamps may be any numbers: the difference wraps around.
std::int64_t timeBetween(std::int64_t earlierNs, std::int64_t laterNs);

struct Gap {
    std::int64_t beginNs = 0;  ///< of the last record before
    std::int64_t endNs = 0;    ///< of the first record after

    std::int64_t lengthNs() const { return timeBetween(beginNs, endNs); }
};

struct Gaps {
    static constexpr std::size_t kMaxKept = 10000;

    std::vector<Gap> gaps;      ///< the first kMaxKept
    std::uint64_t count = 0;    ///< of all
    bool isLowerBound = false;  ///< there may be more: too many places for a close look
    Gap longest;                ///< of those looked at closely
};

/// Sees all records of a range in order, whichever of them are of use otherwise.
class GapSearch {
  public:
    /// `cycleNs` 0: a group that is not cyclic has no gaps.
    explicit GapSearch(std::int64_t cycleNs) : cycleNs_(cycleNs) {}

    void look(const RecordBatch& batch);
    void lookAt(std::int64_t timeNs);
    /// The records up to one at `timeNs` are left out; `hidesGap`: they hold one at least.
    void skipTo(std::int64_t timeNs, bool hidesGap);
    Gaps take() { return std::move(found_); }

  private:
    std::int64_t longestStep(const RecordBatch& batch, std::size_t begin, std::size_t end) const;

    const std::int64_t cycleNs_;
    bool begun_ = false;
    std::int64_t lastNs_ = 0;
    Gaps found_;
};

}  // namespace lm::storage
