#include "exporter/gap_search.h"

#include <algorithm>
#include <utility>

#include "storage/gap_finder.h"

namespace lm::exporter {
namespace {

/// Small enough to stay in the processor's cache.
constexpr std::size_t kBatchBytes = std::size_t{128} << 10U;

/// Goes from record to record and keeps the gaps between them.
class GapSearch {
  public:
    GapSearch(std::int64_t firstNs, std::int64_t cycleNs) : lastNs_(firstNs), cycleNs_(cycleNs) {}

    void look(const storage::RecordBatch& batch) {
        // Nearly all records have their predecessor in time, so many are looked at together first.
        constexpr std::size_t kTogether = 64;
        for (std::size_t begin = 0; begin < batch.count; begin += kTogether) {
            const std::size_t end = std::min(begin + kTogether, batch.count);
            if (storage::isGap(0, longestStep(batch, begin, end), cycleNs_)) lookClosely(batch, begin, end);
            lastNs_ = batch.timestampNs(end - 1);
        }
    }

    Gaps take() { return std::move(found_); }

  private:
    std::int64_t longestStep(const storage::RecordBatch& batch, std::size_t begin, std::size_t end) const {
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

    void lookClosely(const storage::RecordBatch& batch, std::size_t begin, std::size_t end) {
        std::int64_t last = lastNs_;
        for (std::size_t i = begin; i < end; ++i) {
            const std::int64_t time = batch.timestampNs(i);
            if (storage::isGap(last, time, cycleNs_) && ++found_.count <= Gaps::kMaxKept) {
                found_.gaps.push_back({last, time});
            }
            last = time;
        }
    }

    std::int64_t lastNs_;
    const std::int64_t cycleNs_;
    Gaps found_;
};

Result<Gaps> searchGaps(const ExportGroup& group, const std::atomic<bool>& stop) {
    const std::int64_t cycleNs = group.reader.info().cycleNs;
    if (cycleNs <= 0 || group.range.count() < 2) return Gaps();
    auto first = group.reader.timestampNs(group.range.first);
    if (!first) return first.error();
    GapSearch search(first.value(), cycleNs);
    storage::RecordStream stream = group.reader.read(group.range, kBatchBytes);
    while (!stop.load(std::memory_order_relaxed)) {
        auto batch = stream.next();
        if (!batch) return batch.error();
        if (batch.value().count == 0) break;
        search.look(batch.value());
    }
    return search.take();
}

}  // namespace

std::future<Result<Gaps>> startGapSearch(const ExportGroup& group, const std::atomic<bool>& stop) {
    return std::async(std::launch::async, [&group, &stop] { return searchGaps(group, stop); });
}

}  // namespace lm::exporter
