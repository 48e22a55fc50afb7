// The options of `measure` that say into what it records: parts, how much of them is kept, names, exports.
//
// Threads: the main thread, but for the care that a place gets (see RecordingCare). Lifetime: the parser
// refers to these options until it has parsed.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/option_set.h"
#include "core/result.h"
#include "storage/write/recorder.h"

namespace lm::cli {

/// A time ("90s", "15min", "1h", "14d") or a size ("500MB", "2GB"), whichever its unit says; the other one is
/// 0.
struct TimeOrSize {
    std::chrono::nanoseconds time{0};
    std::uint64_t bytes = 0;
};
/// Errors (invalidArgument): "'TEXT' is no time and no size (90s, 15min, 1h, 14d, 500MB, 2GB)".
Result<TimeOrSize> parseTimeOrSize(std::string_view text);

class RecordingOptions {
  public:
    void addOptions(OptionSet& options);
    /// Errors: what does not go together.
    Result<void> check() const;

    bool records() const { return !directory_.empty(); }
    bool withParameters() const { return withParameters_; }
    /// True when -r was given, and is empty.
    bool recordsNowhere() const { return recordsNowhere_; }
    const std::string& directory() const { return directory_; }
    /// "mf4", "csv" or empty.
    const std::string& exportAs() const { return exportAs_; }
    /// Closed recordings are to be checked.
    bool caresForRecordings() const { return !split_.empty() || !exportAs_.empty(); }
    /// Nothing but the directory is asked for, and what goes into each recording.
    bool takesAreEnough() const { return split_.empty() && keep_.empty() && !name_ && exportAs_.empty(); }
    /// Without care and companions.
    Result<storage::RecordingPlace> place() const;

  private:
    std::string directory_;
    bool recordsNowhere_ = false;
    std::vector<std::string> split_;
    std::vector<std::string> keep_;
    std::optional<std::string> name_;
    std::string exportAs_;
    bool withParameters_ = false;
};

/// The words of this program's command line.
std::vector<std::string> commandLineWords();

}  // namespace lm::cli
