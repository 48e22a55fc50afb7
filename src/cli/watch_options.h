// The options that tell `measure` what to look at: assertions, triggers, and the report of both.
//
// Threads: the main thread. Lifetime: the parser refers to the options until it has parsed; results own
// everything.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/option_set.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "watch/expression.h"
#include "watch/take_recorder.h"

namespace lm::cli {

struct WatchOptions {
    std::vector<std::string> assertions;
    std::vector<std::string> assertFiles;
    std::vector<std::string> startWhen;
    std::vector<std::string> stopWhen;
    std::optional<std::string> pre;
    std::optional<std::string> post;
    std::optional<std::uint32_t> repeat;

    bool recordsTakes() const { return !startWhen.empty() || !stopWhen.empty(); }
};

void addWatchOptions(OptionSet& options, WatchOptions& target);
/// --report.
void addReport(OptionSet& options, std::optional<std::string>& target);

/// One expression and where it was given, for errors: "--assert 'oil>1'", "checks.txt line 3".
struct WantedExpression {
    std::string place;
    std::string name;  ///< of an assertion
    watch::Expression expression;
};

/// The options taken apart.
struct WatchPlan {
    std::vector<WantedExpression> assertions;
    std::vector<WantedExpression> starts;
    std::vector<WantedExpression> stops;
    watch::TakeOptions takes;

    bool recordsTakes() const { return !starts.empty() || !stops.empty(); }
    bool isEmpty() const { return assertions.empty() && !recordsTakes(); }
};

/// Error: "PLACE: column N: REASON".
Result<WantedExpression> parseWanted(std::string place, std::string name, std::string_view text);

/// `recordDirectory` is that of -r. Errors: those of parseWanted(), files that cannot be read, times that are
/// none, options that need others.
Result<WatchPlan> parseWatchOptions(const WatchOptions& options, const std::string& recordDirectory,
                                    const StopToken& stop);

/// "--for: '2' is no time (2s, 500ms, 1.5min or 1h)".
Result<std::chrono::nanoseconds> parseTime(std::string_view option, std::string_view text);

}  // namespace lm::cli
