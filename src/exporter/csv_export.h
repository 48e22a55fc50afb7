// Exports to CSV as of RFC 4180, in UTF-8: a heading with names and units, then one line per record.
//
// Threads: one at a time. Lifetime: borrows everything.
#pragma once

#include <filesystem>
#include <vector>

#include "core/result.h"
#include "exporter/export_plan.h"
#include "storage/format/recording_events.h"

namespace lm::exporter {

/// What exportCsv() calls its files.
std::vector<std::filesystem::path> csvFiles(const std::vector<ExportGroup>& groups,
                                            const ExportOptions& options);

/// Writes one file for all groups (`merge`, or there is only one group): that of the options. Else one per
/// group, with the group's name in its own: "out.csv" gives "out_cyclic_1ms.csv". With `gaps` one more,
/// "out_gaps.csv". Either all appear or none, unless renaming the last ones fails. Returns the files: none
/// for a stream, which takes one table. Errors: of reading the recording, of OutputFile, of `progress`;
/// invalidArgument for several groups in a stream.
Result<std::vector<std::filesystem::path>> exportCsv(const storage::RecordingInfo& info,
                                                     const std::vector<ExportGroup>& groups,
                                                     const std::vector<storage::Outage>& outages,
                                                     const ExportOptions& options, Progress& progress);

}  // namespace lm::exporter
