#include "exporter/gap_search.h"

#include <algorithm>

#include "storage/read/gap_finder.h"

namespace lm::exporter {

void GapSearch::look(const storage::RecordBatch& batch) {
    if (cycleNs_ <= 0 || batch.count == 0) return;
    if (!std::exchange(begun_, true)) lastNs_ = batch.timestampNs(0);
    // Nearly all records have their predecessor in time, so many are looked at together first.
    constexpr std::size_t kTogether = 64;
    for (std::size_t begin = 0; begin < batch.count; begin += kTogether) {
        const std::size_t end = std::min(begin + kTogether, batch.count);
        if (storage::isGap(0, longestStep(batch, begin, end), cycleNs_)) lookClosely(batch, begin, end);
        lastNs_ = batch.timestampNs(end - 1);
    }
}

std::int64_t GapSearch::longestStep(const storage::RecordBatch& batch, std::size_t begin,
                                    std::size_t end) const {
    std::int64_t longest = 0;
    std::int64_t last = lastNs_;
    for (std::size_t i = begin; i < end; ++i) {
        const std::int64_t time = batch.timestampNs(i);
        // Damaged timestamps may be any numbers.
        const std::uint64_t step = static_cast<std::uint64_t>(time) - static_cast<std::uint64_t>(last);
        longest = std::max(longest, static_cast<std::int64_t>(step));
        last = time;
    }
    return longest;
}

void GapSearch::lookClosely(const storage::RecordBatch& batch, std::size_t begin, std::size_t end) {
    std::int64_t last = lastNs_;
    for (std::size_t i = begin; i < end; ++i) {
        const std::int64_t time = batch.timestampNs(i);
        if (storage::isGap(last, time, cycleNs_) && ++found_.count <= Gaps::kMaxKept) {
            found_.gaps.push_back({last, time});
        }
        last = time;
    }
}

}  // namespace lm::exporter
