#include "storage/read/gap_finder.h"

#include <algorithm>

#include "core/bytes.h"
#include "storage/format/recording_format.h"
#include "storage/read/entry_reader.h"

namespace lm::storage {
namespace {

/// Some ten milliseconds; behind them a long block counts as one gap.
constexpr std::uint64_t kMaxCloseLooks = 2000;

class GapFinder {
  public:
    explicit GapFinder(const GroupReader& group)
        : group_(group), cycleNs_(group.info().cycleNs), search_(cycleNs_) {}

    /// The pieces come in their order, each first with its index, if it has one.
    /// Blocks of 16 records by their first and last timestamps.
    Result<void> lookThroughIndex(const GroupPiece& piece, EntryReader& index) {
        const std::uint64_t blocks = std::min(index.count(), piece.count / kBlockLength);
        while (next_ - piece.first < blocks * kBlockLength) {
            const std::uint64_t first = (next_ - piece.first) / kBlockLength;
            auto entries = index.read(first, blocks - first);
            if (!entries) return entries.error();
            for (std::size_t at = 0; at < entries.value().size(); at += kIndexEntrySize) {
                const std::uint8_t* entry = &entries.value()[at];
                auto looked = lookAtBlock(timeAt(entry, piece), timeAt(entry + 8, piece));
                if (!looked) return looked;
            }
        }
        return {};
    }

    Result<void> lookThroughRecords(const GroupPiece& piece) {
        RecordStream stream = group_.read({next_, piece.end()});
        next_ = piece.end();
        for (;;) {
            auto batch = stream.next();
            if (!batch) return batch.error();
            if (batch.value().count == 0) return {};
            search_.look(batch.value());
        }
    }

    Gaps take() { return search_.take(); }

  private:
    static std::int64_t timeAt(const std::uint8_t* bytes, const GroupPiece& piece) {
        return static_cast<std::int64_t>(readLittle<std::uint64_t>(bytes) +
                                         static_cast<std::uint64_t>(piece.shiftNs));
    }

    Result<void> lookAtBlock(std::int64_t firstNs, std::int64_t lastNs) {
        search_.lookAt(firstNs);
        constexpr std::int64_t kIntervals = kBlockLength - 1;
        const bool isLong = timeBetween(firstNs, lastNs) > cycleNs_ * kIntervals + cycleNs_ / 2;
        const bool lookClosely = isLong && closeLooks_ < kMaxCloseLooks;
        if (lookClosely) {
            ++closeLooks_;
            for (std::uint64_t n = next_; n < next_ + kBlockLength - 1; ++n) {
                auto time = group_.timestampNs(n);
                if (!time) return time.error();
                search_.lookAt(time.value());
            }
            search_.lookAt(lastNs);
        }
        search_.skipTo(lastNs, isLong && !lookClosely);
        next_ += kBlockLength;
        return {};
    }

    const GroupReader& group_;
    const std::int64_t cycleNs_;
    GapSearch search_;
    std::uint64_t next_ = 0;  ///< record behind those looked at
    std::uint64_t closeLooks_ = 0;
};

}  // namespace

Result<Gaps> findGaps(const GroupReader& group) {
    // A day between two samples is no cycle to keep, and its multiples must not overflow.
    constexpr std::int64_t kMaxCycleNs = std::int64_t{86400} * 1000000000;
    const std::int64_t cycle = group.info().cycleNs;
    if (cycle <= 0 || cycle > kMaxCycleNs) return Gaps{};
    GapFinder finder(group);
    for (const GroupPiece& piece : group.pieces()) {
        auto index = EntryReader::open(piece.directory(), group.number(), group.info(), SummaryFile::kIndex);
        if (index) {
            if (auto looked = finder.lookThroughIndex(piece, index.value()); !looked) return looked.error();
        }
        if (auto looked = finder.lookThroughRecords(piece); !looked) return looked.error();
    }
    return finder.take();
}

}  // namespace lm::storage
