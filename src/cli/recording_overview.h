// What `recording info` shows: outages, groups, signals, counts, rates, gaps, extremes. All of it comes from
// the events, the time index and the summary levels, so the length of the recording does not matter unless
// numbers are to be exact.
//
// Threads: one thread. Lifetime: an overview borrows the recording.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_events.h"
#include "storage/read/gap_finder.h"
#include "storage/read/recording_parts.h"
#include "storage/read/recording_reader.h"
#include "value/value_text.h"

namespace lm::cli {

inline double secondsBetween(std::int64_t fromNs, std::int64_t toNs) {
    return (static_cast<double>(toNs) - static_cast<double>(fromNs)) / 1e9;
}

inline double secondsOf(const storage::TimeSpan& span) {
    return span.isEmpty() ? 0 : secondsBetween(span.firstNs, span.lastNs);
}

struct Extreme {
    double physical = 0;
    std::string text;  ///< as the A2L has it: a terminal needs printableText() of it
};
/// The least and the greatest value of a signal; none when there is no value.
using SignalRange = std::optional<std::pair<Extreme, Extreme>>;

struct GroupOverview {
    storage::GroupReader reader;
    storage::TimeSpan span;
    std::optional<storage::Gaps> gaps = {};  ///< none without a cycle, and when they could not be read
    std::vector<SignalRange> ranges = {};    ///< of all signals, or of none when they could not be read
};

struct RecordingOverview {
    const storage::RecordingReader& recording;
    std::vector<GroupOverview> groups = {};  ///< those that could be opened
    storage::TimeSpan span = {};
    bool beingWritten = false;
    std::uint64_t bytes = 0;
    storage::RecordingEvents events = {};
    std::vector<storage::PartBreak> breaks = {};  ///< of several recordings
};

/// What cannot be read goes to `fail`; the rest is there all the same. With exact numbers the extremes come
/// from the records, all of which are read: the summary levels round.
RecordingOverview overviewOf(const storage::RecordingReader& recording, value::NumberStyle style,
                             const std::function<void(const Error&)>& fail);

/// A physical value with the decimals of the signal's display format; the text of a verbal one, when it has
/// one.
std::string physicalText(double value, const storage::SignalInfo& signal);

/// "1.204 s" from the start.
std::string secondsText(std::int64_t timeNs, const storage::RecordingInfo& info);

/// "from 1.204 s to 3.400 s: REASON; OUTCOME", "... to the end: ..." for one without an end.
std::string outageText(const storage::Outage& outage, const storage::RecordingInfo& info);

/// A remark, or a parameter that was written.
struct Happening {
    std::int64_t timeNs = 0;
    const char* kind = "";  ///< "marker" or "written"
    std::string text;       ///< "at 1.204 s: TEXT", fit for a terminal
};

/// By time.
std::vector<Happening> happenings(const storage::RecordingEvents& events, const storage::RecordingInfo& info);

}  // namespace lm::cli
