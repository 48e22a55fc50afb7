// Mends a recording after a crash: cuts torn records off, makes index and levels again from the records.
// Whole records are never touched, and index and levels are replaced only by files that are complete.
//
// Threads: one thread; no other program may record or repair there, which is checked. Lifetime: nothing is
// kept.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "core/result.h"
#include "storage/care/recording_check.h"

namespace lm::storage {

/// Told of each repair when it is done: "FILE: what was done".
using RepairListener = std::function<void(const std::string&)>;

/// Returns the findings that cannot be mended; the rest of the recording is mended all the same. A failure
/// (full disk, stop) leaves the files that were not mended as they were.
/// Errors: those of RecordingReader::open(); wouldBlock "DIRECTORY is still being recorded: ..."; "cannot
/// write FILE: REASON"; those of InputFile::readAt(); Error::stopped "stopped".
Result<std::vector<Finding>> repairRecording(const std::filesystem::path& directory, const StopToken& stop,
                                             const RepairListener& tell);

}  // namespace lm::storage
