// What the time index and the levels of a group hold, computed from its records: the least and greatest
// values over blocks of 16 records, of 16 such blocks, and so on (docs/recording-format.md). Recording, check
// and repair all take their entries from here.
//
// Threads: one at a time. Lifetime: borrows the group's description, which must outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "storage/format/recording_info.h"
#include "storage/format/signal_decoder.h"

namespace lm::storage {

/// The float interval that contains the double one; NaN for both when that is empty.
struct FloatRange {
    float minimum;
    float maximum;
};
FloatRange narrowOutward(const ValueRange& range);

class SummaryBuilder {
  public:
    /// Takes the next entry of a summary file (numbered as SummaryFile says); the bytes are valid during the
    /// call. False ends the whole.
    using TakeEntry = std::function<bool(std::size_t file, std::span<const std::uint8_t> entry)>;

    explicit SummaryBuilder(const GroupInfo& group);

    /// `records` points to the `count` stored records (timestamp and data, back to back) that follow those
    /// given before. False when an entry was not taken.
    bool add(const std::uint8_t* records, std::size_t count, const TakeEntry& takeEntry);

  private:
    struct Level {
        std::vector<ValueRange> ranges;  ///< of the block being filled, one per signal
        std::uint32_t count = 0;         ///< records or entries in that block
    };

    bool completeBlock(const TakeEntry& takeEntry);
    bool passOn(std::size_t level, const TakeEntry& takeEntry);
    Level emptyLevel() const { return {std::vector<ValueRange>(decoders_.size())}; }

    std::size_t stride_;
    std::vector<SignalDecoder> decoders_;
    std::vector<Level> levels_;     ///< the first is level 1
    std::uint64_t blockStart_ = 0;  ///< timestamps of the block being filled
    std::uint64_t blockEnd_ = 0;
    std::vector<std::uint8_t> entry_;
};

}  // namespace lm::storage
