// What happened while a recording was made, as events of an MDF file, which hold for all its groups.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include "exporter/mf4_metadata.h"
#include "storage/format/recording_events.h"

namespace lm::exporter {

/// Puts in front of `events` a pair (begin and end of an acquisition interrupt) for each outage, a single one
/// for an outage without an end, and a marker for each remark and each parameter that was written.
void addHappenings(Mf4Events& events, const storage::RecordingInfo& info,
                   const storage::RecordingEvents& happenings);

}  // namespace lm::exporter
