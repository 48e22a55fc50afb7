// Gaps in the records of a cyclic group: more than 1.5 cycles from one record to the next.
//
// Threads: startGapSearch() runs the search on a thread of its own, beside whoever copies the same records.
// Lifetime: the group and the stop flag outlive the search; destroying the future waits for its end.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <future>
#include <vector>

#include "core/result.h"
#include "exporter/export_plan.h"

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

/// Looks at every record of the group's range, whichever of them are exported; a group that is not cyclic has
/// no gaps. `stop` ends it early. Errors: of RecordStream::next().
std::future<Result<Gaps>> startGapSearch(const ExportGroup& group, const std::atomic<bool>& stop);

}  // namespace lm::exporter
