// The CSV file that lists when there were no samples: outages of the connection and gaps in cyclic groups.
//
// Threads: pure functions. Lifetime: the result owns its text.
#pragma once

#include <string>
#include <vector>

#include "exporter/export_plan.h"
#include "storage/format/recording_events.h"
#include "storage/read/gap_search.h"

namespace lm::exporter {

/// Columns kind, group, begin, end, reason. An outage is one of all groups; the end of one without an end is
/// empty. One `gaps` per group; behind the last one that was kept a line says how many there are.
std::string gapList(const storage::RecordingInfo& info, const std::vector<ExportGroup>& groups,
                    const std::vector<storage::Gaps>& gaps, const std::vector<storage::Outage>& outages,
                    bool absolute);

}  // namespace lm::exporter
