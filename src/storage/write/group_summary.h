// What the time index and the levels of a group must hold, computed again from its records.
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
#include "storage/read/group_reader.h"

namespace lm::storage {

class GroupSummary {
  public:
    /// Takes the next entry of a summary file (numbered as SummaryFile says); the bytes are valid during the
    /// call. False ends the whole.
    using TakeEntry = std::function<bool(std::size_t file, std::span<const std::uint8_t> entry)>;

    GroupSummary(const GroupInfo& group, TakeEntry takeEntry);

    /// The records that follow those given before. False when an entry was not taken.
    bool add(const RecordBatch& batch);

  private:
    struct Level {
        std::vector<ValueRange> ranges;  ///< of the block being filled, one per signal
        std::uint32_t count = 0;         ///< records or entries in that block
    };

    bool completeBlock();
    bool passOn(std::size_t level);

    TakeEntry takeEntry_;
    std::vector<SignalDecoder> decoders_;
    std::vector<Level> levels_;  ///< the first is level 1
    std::int64_t blockStartNs_ = 0;
    std::int64_t blockEndNs_ = 0;
    std::vector<std::uint8_t> entry_;
};

}  // namespace lm::storage
