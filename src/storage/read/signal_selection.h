// Picks signals of a recording by name, and reads the times that a user types.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_info.h"

namespace lm::storage {

/// A signal by its places in "groups" and "signals".
struct SignalPlace {
    std::size_t group = 0;
    std::size_t signal = 0;
};

/// True when `pattern` matches the whole text: '*' stands for any characters, '?' for one (of UTF-8), every
/// other character for itself. An exact name always matches, whatever characters it has.
bool matchesPattern(std::string_view text, std::string_view pattern);

/// The signals whose name matches one of the patterns, all for no patterns, in the order of the recording.
/// "NAME" stands for its elements "NAME[0]", too.
/// Errors: notFound "no signal matches 'PATTERN' in this recording" for a pattern without a match.
Result<std::vector<SignalPlace>> selectSignals(const RecordingInfo& info,
                                               const std::vector<std::string>& patterns);

/// A time as typed: seconds from the start of the recording ("1.5", "-0.1") or ISO 8601
/// ("2026-03-01T12:00:00.5Z", with "+01:00" or without a zone: UTC; the time of day may be left out). Returns
/// nanoseconds on the clock of the timestamps. Errors: invalidArgument "'TEXT' is neither seconds from the
/// start nor a time such as 2026-03-01T12:00:00Z".
Result<std::int64_t> parseRecordingTime(std::string_view text, const RecordingInfo& info);

/// ISO 8601 in UTC of a timestamp of the recording, with `decimals` (0 to 9) of the second, truncated:
/// "2026-03-01T12:00:00.500Z".
std::string utcText(std::int64_t timestampNs, const RecordingInfo& info, int decimals);

}  // namespace lm::storage
