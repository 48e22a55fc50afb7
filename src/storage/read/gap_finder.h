// Gaps of a periodic group: places where more than 1.5 cycles lie between two records.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <filesystem>

#include "core/result.h"
#include "storage/read/group_reader.h"

namespace lm::storage {

/// True when more than 1.5 cycles lie between two neighbours; never for a cycle of 0 (not periodic).
bool isGap(std::int64_t earlierNs, std::int64_t laterNs, std::int64_t cycleNs);

struct GapSummary {
    std::uint64_t count = 0;
    /// There may be more: too many places for a close look.
    bool isLowerBound = false;
    std::int64_t longestNs = 0;
    std::int64_t longestFromNs = 0;  ///< timestamp of the record before the longest one
};

/// Looks through the time index, and into those of its blocks that took half a cycle too long: one lost
/// record is found, a record that only came late need not be. Where the index is missing or ends, all
/// records are looked at. Errors: those of InputFile::readAt().
Result<GapSummary> findGaps(const std::filesystem::path& directory, const GroupReader& group);

}  // namespace lm::storage
