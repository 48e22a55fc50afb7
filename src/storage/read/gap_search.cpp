#include "storage/read/gap_search.h"

#include <algorithm>
#include <limits>

namespace lm::storage {

std::int64_t timeBetween(std::int64_t earlierNs, std::int64_t laterNs) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(laterNs) -
                                     static_cast<std::uint64_t>(earlierNs));
}

bool isGap(std::int64_t earlierNs, std::int64_t laterNs, std::int64_t cycleNs) {
    if (cycleNs <= 0 || cycleNs > std::numeric_limits<std::int64_t>::max() / 2) return false;
    return timeBetween(earlierNs, laterNs) > cycleNs + cycleNs / 2;
}

void GapSearch::look(const RecordBatch& batch) {
    if (cycleNs_ <= 0 || batch.count == 0) return;
    if (!begun_) lookAt(batch.timestampNs(0));
    // Nearly all records have their predecessor in time, so many are looked at together first.
    constexpr std::size_t kTogether = 64;
    for (std::size_t begin = 0; begin < batch.count; begin += kTogether) {
        const std::size_t end = std::min(begin + kTogether, batch.count);
        if (isGap(0, longestStep(batch, begin, end), cycleNs_)) {
            for (std::size_t i = begin; i < end; ++i)
                lookAt(batch.timestampNs(i));
        }
        lastNs_ = batch.timestampNs(end - 1);
    }
}

std::int64_t GapSearch::longestStep(const RecordBatch& batch, std::size_t begin, std::size_t end) const {
    std::int64_t longest = 0;
    std::int64_t last = lastNs_;
    for (std::size_t i = begin; i < end; ++i) {
        const std::int64_t time = batch.timestampNs(i);
        longest = std::max(longest, timeBetween(last, time));
        last = time;
    }
    return longest;
}

void GapSearch::lookAt(std::int64_t timeNs) {
    if (std::exchange(begun_, true) && isGap(lastNs_, timeNs, cycleNs_)) {
        const Gap gap{lastNs_, timeNs};
        if (++found_.count <= Gaps::kMaxKept) found_.gaps.push_back(gap);
        if (gap.lengthNs() > found_.longest.lengthNs()) found_.longest = gap;
    }
    lastNs_ = timeNs;
}

void GapSearch::skipTo(std::int64_t timeNs, bool hidesGap) {
    lastNs_ = timeNs;
    if (!hidesGap) return;
    ++found_.count;
    found_.isLowerBound = true;
}

}  // namespace lm::storage
