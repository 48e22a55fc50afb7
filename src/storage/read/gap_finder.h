// The gaps of a whole group, without reading all of it.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include "core/result.h"
#include "storage/read/gap_search.h"
#include "storage/read/group_reader.h"

namespace lm::storage {

/// Looks through the time index, and into those of its blocks that took half a cycle too long: one lost
/// record is found, a record that only came late need not be. Where the index is missing or ends, all
/// records are looked at. Errors: those of InputFile::readAt().
Result<Gaps> findGaps(const GroupReader& group);

}  // namespace lm::storage
