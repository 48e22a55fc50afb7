// What a plot draws of a recording: for each column of pixels the least, the greatest and the last value of
// each signal, or all samples when they are few. No peak is lost, and nothing is drawn where nothing is
// known: before the first sample, after the last one, in gaps and outages.
//
// Threads: as of the opened recording. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/result.h"
#include "http/message.h"
#include "serve/opened_recording.h"

namespace lm::serve {

struct SeriesWish {
    std::vector<std::size_t> places;  ///< of signals, counted through all groups
    std::int64_t fromNs = 0;          ///< from the start of the recording
    std::int64_t toNs = 0;
    std::size_t columns = 0;
};

/// ?signals, from, to, columns. Error: invalidArgument.
Result<SeriesWish> seriesWishOf(const http::Request& request);
/// "signals=0,5,7": at most `most`. Error: invalidArgument.
Result<std::vector<std::size_t>> placesOf(const std::string& text, std::size_t most);
/// A signed number of nanoseconds, of 30 years at most. Error: invalidArgument.
Result<std::int64_t> nanosecondsOf(const http::Request& request, const char* name);

/// The answer as docs/serve.md describes it. Errors: notFound for a place without a signal, those of reading.
Result<std::string> seriesOf(OpenedRecording& recording, const SeriesWish& wish);

/// A group and a place in it, of the signals counted through all groups.
struct PlaceInGroup {
    std::size_t group = 0;
    std::size_t signal = 0;
};
Result<PlaceInGroup> placeInGroup(const storage::RecordingInfo& info, std::size_t place);

}  // namespace lm::serve
