// Outages and triggers as events of an MDF file, which hold for all its groups.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <vector>

#include "exporter/mf4_metadata.h"
#include "storage/format/recording_events.h"

namespace lm::exporter {

/// Puts a pair of events (begin and end of an acquisition interrupt) in front of `events` for each outage; a
/// single one for an outage without an end.
void addOutages(Mf4Events& events, const storage::RecordingInfo& info,
                const std::vector<storage::Outage>& outages);

/// Likewise: a start or stop trigger each.
void addTriggers(Mf4Events& events, const storage::RecordingInfo& info,
                 const std::vector<storage::Trigger>& triggers);

}  // namespace lm::exporter
