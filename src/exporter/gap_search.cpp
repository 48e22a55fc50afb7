#include "exporter/gap_search.h"

#include "storage/gap_finder.h"

namespace lm::exporter {
namespace {

Result<Gaps> searchGaps(const ExportGroup& group, const std::atomic<bool>& stop) {
    Gaps found;
    const std::int64_t cycleNs = group.reader.info().cycleNs;
    if (cycleNs <= 0 || group.range.count() < 2) return found;
    storage::RecordStream stream = group.reader.read(group.range);
    auto first = group.reader.timestampNs(group.range.first);
    if (!first) return first.error();
    std::int64_t last = first.value();
    while (!stop.load(std::memory_order_relaxed)) {
        auto batch = stream.next();
        if (!batch) return batch.error();
        if (batch.value().count == 0) break;
        for (std::size_t i = 0; i < batch.value().count; ++i) {
            const std::int64_t time = batch.value().timestampNs(i);
            if (storage::isGap(last, time, cycleNs)) {
                if (++found.count <= Gaps::kMaxKept) found.gaps.push_back({last, time});
            }
            last = time;
        }
    }
    return found;
}

}  // namespace

std::future<Result<Gaps>> startGapSearch(const ExportGroup& group, const std::atomic<bool>& stop) {
    return std::async(std::launch::async, [&group, &stop] { return searchGaps(group, stop); });
}

}  // namespace lm::exporter
