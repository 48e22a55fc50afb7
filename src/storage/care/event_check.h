// Checks and mends "events.jsonl". A whole line is never changed or removed.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <filesystem>
#include <vector>

#include "core/result.h"
#include "storage/care/recording_check.h"
#include "storage/care/recording_repair.h"
#include "storage/format/recording_info.h"

namespace lm::storage {

/// A recording without the file is sound: older programs wrote none.
std::vector<Finding> checkEvents(const std::filesystem::path& directory, const RecordingInfo& info);

/// Cuts off a torn line, ends a whole one that lacks its line feed, and begins a file again that was cut in
/// its first line. Errors: stillRecorded(), "cannot write PATH: REASON".
Result<void> repairEvents(const std::filesystem::path& directory, const RecordingInfo& info,
                          const RepairListener& tell);

}  // namespace lm::storage
