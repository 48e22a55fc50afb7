#include "storage/write/group_summary.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

#include "core/bytes.h"
#include "storage/format/recording_format.h"
#include "storage/read/entry_reader.h"
#include "storage/write/pyramid.h"

namespace lm::storage {

GroupSummary::GroupSummary(const GroupInfo& group, TakeEntry takeEntry)
    : takeEntry_(std::move(takeEntry)), levels_(1), entry_(8 * group.signals.size()) {
    decoders_.reserve(group.signals.size());
    for (const SignalInfo& signal : group.signals)
        decoders_.emplace_back(signal);
    levels_[0].ranges.resize(decoders_.size());
}

bool GroupSummary::add(const RecordBatch& batch) {
    for (std::size_t done = 0; done < batch.count;) {
        Level& first = levels_.front();
        const auto taken = std::min<std::size_t>(batch.count - done, kBlockLength - first.count);
        if (first.count == 0) blockStartNs_ = batch.timestampNs(done);
        blockEndNs_ = batch.timestampNs(done + taken - 1);
        for (std::size_t i = 0; i < decoders_.size(); ++i)
            decoders_[i].extend(first.ranges[i], batch.data(done), batch.stride, taken);
        first.count += static_cast<std::uint32_t>(taken);
        done += taken;
        if (first.count == kBlockLength && !completeBlock()) return false;
    }
    return true;
}

bool GroupSummary::completeBlock() {
    std::array<std::uint8_t, kIndexEntrySize> entry{};
    writeLittle(&entry[0], static_cast<std::uint64_t>(blockStartNs_));
    writeLittle(&entry[8], static_cast<std::uint64_t>(blockEndNs_));
    if (!takeEntry_(SummaryFile::kIndex, entry)) return false;
    if (decoders_.empty()) {
        levels_[0].count = 0;
        return true;
    }
    for (std::size_t i = 0; levels_[i].count == kBlockLength; ++i) {
        if (!passOn(i)) return false;
    }
    return true;
}

/// Gives away the entry of a full block and adds it to the next level.
bool GroupSummary::passOn(std::size_t level) {
    if (level + 1 == levels_.size()) {
        levels_.emplace_back();
        levels_.back().ranges.resize(decoders_.size());
    }
    Level& full = levels_[level];
    Level& next = levels_[level + 1];
    for (std::size_t s = 0; s < full.ranges.size(); ++s) {
        const FloatRange range = narrowOutward(full.ranges[s]);
        writeLittle(&entry_[8 * s], std::bit_cast<std::uint32_t>(range.minimum));
        writeLittle(&entry_[8 * s + 4], std::bit_cast<std::uint32_t>(range.maximum));
        // An empty range extends nothing.
        next.ranges[s].minimum = std::min(next.ranges[s].minimum, full.ranges[s].minimum);
        next.ranges[s].maximum = std::max(next.ranges[s].maximum, full.ranges[s].maximum);
        full.ranges[s] = ValueRange{};
    }
    full.count = 0;
    ++next.count;
    return takeEntry_(level + 1, entry_);
}

}  // namespace lm::storage
