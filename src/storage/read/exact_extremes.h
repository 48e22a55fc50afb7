// Least and greatest values of all signals of a group with all their digits: from the records, all of which
// are read, since the summary levels round.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <optional>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "storage/read/group_reader.h"
#include "value/value.h"

namespace lm::storage {

/// A value as it was recorded.
struct Sample {
    value::Value raw;
    value::Value physical;  ///< a number, also of a verbal conversion
};

/// None of both without a value.
struct ExactExtremes {
    std::optional<Sample> least;
    std::optional<Sample> greatest;
};

/// One for each signal, in the order of the group. Errors: those of RecordStream::next(), Error::stopped
/// "stopped".
Result<std::vector<ExactExtremes>> exactExtremes(const GroupReader& group, const StopToken& stop);

}  // namespace lm::storage
