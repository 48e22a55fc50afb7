// The summary levels of one group: minimum and maximum of every signal over blocks of 16 records, of 16 such
// blocks, and so on (docs/recording-format.md).
//
// Threads: one at a time. Lifetime: borrows the group and the faults, which outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "storage/format/recording_faults.h"
#include "storage/format/recording_info.h"
#include "storage/format/signal_decoder.h"
#include "storage/write/derived_file.h"

namespace lm::storage {

/// The float interval that contains the double one; NaN for both when that is empty.
struct FloatRange {
    float minimum;
    float maximum;
};
FloatRange narrowOutward(const ValueRange& range);

class Pyramid {
  public:
    Pyramid(std::size_t groupIndex, const GroupInfo& group, RecordingFaults& faults);

    /// `records` points to `count` stored records (timestamp and data) back to back.
    void add(const std::uint8_t* records, std::size_t count);
    void flush();
    void close();

    /// The level files that this object made and did not find there.
    void appendNewFiles(std::vector<std::filesystem::path>& files) const;

  private:
    struct Level {
        std::vector<ValueRange> ranges;  ///< of the block being filled, one per signal
        std::uint32_t count = 0;         ///< inputs taken by that block
        std::optional<DerivedFile> file;
        bool missing = false;  ///< the file cannot be created
    };

    void completeBlocks();
    void appendEntry(std::size_t levelIndex);
    void openLevel(std::size_t levelIndex);
    Level makeLevel() const;

    std::size_t groupIndex_;
    std::size_t stride_;
    RecordingFaults* faults_;
    std::vector<SignalDecoder> decoders_;
    std::vector<Level> levels_;
    std::vector<std::uint8_t> entry_;
};

}  // namespace lm::storage
