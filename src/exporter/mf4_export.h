// Exports to MDF 4.10: sorted, one data group per group of the recording.
//
// Threads: one at a time. Lifetime: borrows everything.
#pragma once

#include <string>
#include <vector>

#include "core/result.h"
#include "exporter/export_plan.h"
#include "storage/format/recording_events.h"

namespace lm::exporter {

/// Writes the file of the options. Returns what the user ought to know about it. Errors: of reading the
/// recording, of OutputFile, of `progress`; there is no file then.
Result<std::vector<std::string>> exportMf4(const storage::RecordingInfo& info,
                                           const std::vector<ExportGroup>& groups,
                                           const storage::RecordingEvents& happenings,
                                           const ExportOptions& options, Progress& progress);

}  // namespace lm::exporter
