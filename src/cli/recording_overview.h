// What `recording info` prints: outages, groups, signals, counts, rates, gaps, extremes. All of it comes from
// the events, the time index and the summary levels, so the length of the recording does not matter unless
// numbers are to be exact.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "cli/output.h"
#include "storage/format/recording_events.h"
#include "storage/read/recording_reader.h"
#include "value/value_text.h"

namespace lm::cli {

/// A physical value with the decimals of the signal's display format; the text of a verbal one, when it has
/// one.
std::string physicalText(double value, const storage::SignalInfo& signal);

/// "from 1.204 s to 3.400 s: REASON; OUTCOME", "... to the end: ..." for one without an end.
std::string outageText(const storage::Outage& outage, const storage::RecordingInfo& info);

/// Prints the overview. With exact numbers the extremes come from the records, all of which are read: the
/// summary levels round. Returns the exit code: 1 when a group cannot be read, with the reason on standard
/// error; the other groups are printed all the same.
int printOverview(const storage::RecordingReader& recording, value::NumberStyle style, Output& output);

}  // namespace lm::cli
