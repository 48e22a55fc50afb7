#include "storage/write/summary_builder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <utility>

#include "core/bytes.h"
#include "storage/format/summary_file.h"

namespace lm::storage {

FloatRange narrowOutward(const ValueRange& range) {
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    if (range.isEmpty()) {
        constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
        return {kNaN, kNaN};
    }
    auto minimum = static_cast<float>(range.minimum);
    auto maximum = static_cast<float>(range.maximum);
    if (static_cast<double>(minimum) > range.minimum) minimum = std::nextafterf(minimum, -kInfinity);
    if (static_cast<double>(maximum) < range.maximum) maximum = std::nextafterf(maximum, kInfinity);
    return {minimum, maximum};
}

SummaryBuilder::SummaryBuilder(const GroupInfo& group)
    : stride_(std::size_t{group.recordSize} + kTimestampSize), entry_(8 * group.signals.size()) {
    decoders_.reserve(group.signals.size());
    std::vector<std::size_t> withTables;  // different ones
    for (const SignalInfo& signal : group.signals) {
        SignalDecoder& decoder = decoders_.emplace_back(signal);
        const auto shares = [&](std::size_t other) { return decoder.shareTable(decoders_[other]); };
        if (decoder.hasTable() && std::none_of(withTables.begin(), withTables.end(), shares))
            withTables.push_back(decoders_.size() - 1);
    }
    levels_.push_back(emptyLevel());
}

bool SummaryBuilder::add(const std::uint8_t* records, std::size_t count, const TakeEntry& takeEntry) {
    while (count > 0) {
        Level& first = levels_.front();
        const auto taken = std::min<std::size_t>(count, kBlockLength - first.count);
        if (first.count == 0) blockStart_ = readLittle<std::uint64_t>(records);
        blockEnd_ = readLittle<std::uint64_t>(records + (taken - 1) * stride_);
        for (std::size_t i = 0; i < decoders_.size(); ++i)
            decoders_[i].extend(first.ranges[i], records + kTimestampSize, stride_, taken);
        first.count += static_cast<std::uint32_t>(taken);
        records += taken * stride_;
        count -= taken;
        if (first.count == kBlockLength && !completeBlock(takeEntry)) return false;
    }
    return true;
}

bool SummaryBuilder::completeBlock(const TakeEntry& takeEntry) {
    std::array<std::uint8_t, kIndexEntrySize> entry{};
    writeLittle(&entry[0], blockStart_);
    writeLittle(&entry[8], blockEnd_);
    if (!takeEntry(SummaryFile::kIndex, entry)) return false;
    if (decoders_.empty()) {
        levels_[0].count = 0;
        return true;
    }
    for (std::size_t i = 0; levels_[i].count == kBlockLength; ++i) {
        if (!passOn(i, takeEntry)) return false;
    }
    return true;
}

/// Gives away the entry of a full block and adds it to the next level.
bool SummaryBuilder::passOn(std::size_t level, const TakeEntry& takeEntry) {
    if (level + 1 == levels_.size()) levels_.push_back(emptyLevel());
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
    return takeEntry(level + 1, entry_);
}

}  // namespace lm::storage
