#include "storage/read/gap_finder.h"

#include <algorithm>
#include <limits>

#include "core/bytes.h"
#include "storage/format/recording_format.h"
#include "storage/read/entry_reader.h"

namespace lm::storage {
namespace {

/// Some ten milliseconds; behind them a long block counts as one gap.
constexpr std::uint64_t kMaxCloseLooks = 2000;

std::int64_t difference(std::int64_t earlierNs, std::int64_t laterNs) {
    // Damaged timestamps may be any numbers.
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(laterNs) -
                                     static_cast<std::uint64_t>(earlierNs));
}

class GapFinder {
  public:
    explicit GapFinder(const GroupReader& group) : group_(group), cycleNs_(group.info().cycleNs) {}

    /// Blocks of 16 records by their first and last timestamps.
    Result<void> lookThroughIndex(EntryReader& index) {
        const std::uint64_t blocks = std::min(index.count(), group_.recordCount() / kBlockLength);
        while (next_ < blocks * kBlockLength) {
            const std::uint64_t first = next_ / kBlockLength;
            auto entries = index.read(first, blocks - first);
            if (!entries) return entries.error();
            for (std::size_t at = 0; at < entries.value().size(); at += kIndexEntrySize) {
                const std::uint8_t* entry = &entries.value()[at];
                auto looked = lookAtBlock(static_cast<std::int64_t>(readLittle<std::uint64_t>(entry)),
                                          static_cast<std::int64_t>(readLittle<std::uint64_t>(entry + 8)));
                if (!looked) return looked;
            }
        }
        return {};
    }

    Result<void> lookThroughRecords() {
        RecordStream stream = group_.read({next_, group_.recordCount()});
        for (;;) {
            auto batch = stream.next();
            if (!batch) return batch.error();
            if (batch.value().count == 0) return {};
            for (std::size_t i = 0; i < batch.value().count; ++i)
                lookAtRecord(batch.value().timestampNs(i));
        }
    }

    const GapSummary& summary() const { return summary_; }

  private:
    Result<void> lookAtBlock(std::int64_t firstNs, std::int64_t lastNs) {
        lookAtRecord(firstNs);
        const std::int64_t span = difference(firstNs, lastNs);
        constexpr std::int64_t kIntervals = kBlockLength - 1;
        const bool isLong = span > cycleNs_ * kIntervals + cycleNs_ / 2;
        if (isLong && closeLooks_ == kMaxCloseLooks) {
            ++summary_.count;
            summary_.isLowerBound = true;
        } else if (isLong) {
            ++closeLooks_;
            for (std::uint64_t n = next_; n < next_ + kBlockLength - 1; ++n) {
                auto time = group_.timestampNs(n);
                if (!time) return time.error();
                lookAtRecord(time.value());
            }
            lookAtRecord(lastNs);
        }
        previousNs_ = lastNs;
        next_ += kBlockLength;
        return {};
    }

    void lookAtRecord(std::int64_t timeNs) {
        if (hasPrevious_ && isGap(previousNs_, timeNs, cycleNs_)) {
            ++summary_.count;
            if (const std::int64_t length = difference(previousNs_, timeNs); length > summary_.longestNs) {
                summary_.longestNs = length;
                summary_.longestFromNs = previousNs_;
            }
        }
        previousNs_ = timeNs;
        hasPrevious_ = true;
    }

    const GroupReader& group_;
    const std::int64_t cycleNs_;
    GapSummary summary_;
    std::uint64_t next_ = 0;  ///< record behind those looked at
    std::uint64_t closeLooks_ = 0;
    std::int64_t previousNs_ = 0;
    bool hasPrevious_ = false;
};

}  // namespace

bool isGap(std::int64_t earlierNs, std::int64_t laterNs, std::int64_t cycleNs) {
    if (cycleNs <= 0 || cycleNs > std::numeric_limits<std::int64_t>::max() / 2) return false;
    return difference(earlierNs, laterNs) > cycleNs + cycleNs / 2;
}

Result<GapSummary> findGaps(const std::filesystem::path& directory, const GroupReader& group) {
    // A day between two samples is no cycle to keep, and its multiples must not overflow.
    constexpr std::int64_t kMaxCycleNs = std::int64_t{86400} * 1000000000;
    const std::int64_t cycle = group.info().cycleNs;
    if (cycle <= 0 || cycle > kMaxCycleNs) return GapSummary{};
    GapFinder finder(group);
    if (auto index = EntryReader::open(directory, group.number(), group.info(), SummaryFile::kIndex)) {
        if (auto looked = finder.lookThroughIndex(index.value()); !looked) return looked.error();
    }
    if (auto looked = finder.lookThroughRecords(); !looked) return looked.error();
    return finder.summary();
}

}  // namespace lm::storage
