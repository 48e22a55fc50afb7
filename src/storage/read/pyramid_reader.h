// Least and greatest values of signals over any stretch of a group's records, from the levels of its pyramid
// where they cover it and from the records at its ends: a few dozen small reads, whatever the length. A level
// that is missing, too short or unfit is done without; that only takes longer.
//
// Threads: one at a time. Lifetime: borrows the group reader, which must outlive it and stay in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "core/result.h"
#include "storage/format/signal_decoder.h"
#include "storage/read/entry_reader.h"
#include "storage/read/group_reader.h"

namespace lm::storage {

class PyramidReader {
  public:
    explicit PyramidReader(const GroupReader& group);

    /// One range for each of `signals` (places in the group's "signals"), over `records`, which lie in the
    /// group; empty where a signal has no valid value. What comes from a level is rounded outward to floats.
    /// Errors: those of InputFile::readAt().
    Result<std::vector<ValueRange>> extremes(RecordRange records, std::span<const std::size_t> signals);

  private:
    /// A stretch that one level answers: its entries, or records for level 0.
    struct Step {
        std::size_t level = 0;
        std::uint64_t entries = 0;
    };

    /// The levels of one file of the group; ranges count from its first record.
    struct Piece {
        const GroupPiece* records = nullptr;
        std::vector<std::optional<EntryReader>> levels = {};  ///< by level; the first is no level

        Step nextStep(RecordRange range) const;
        std::uint64_t entriesOf(std::size_t level) const;
    };

    Result<void> addPiece(Piece& piece, RecordRange records, std::span<const std::size_t> signals,
                          std::vector<ValueRange>& ranges);
    Result<void> addRecords(RecordRange records, std::span<const std::size_t> signals,
                            std::vector<ValueRange>& ranges) const;
    static Result<void> addEntries(EntryReader& file, std::uint64_t first, std::uint64_t count,
                                   std::span<const std::size_t> signals, std::vector<ValueRange>& ranges);

    const GroupReader* group_;
    std::vector<SignalDecoder> decoders_;
    std::vector<Piece> pieces_;
};

}  // namespace lm::storage
