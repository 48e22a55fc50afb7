// What came of assertions and takes, as lines for people, members of JSON, and cases of a report.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/json_writer.h"
#include "cli/test_report.h"
#include "watch/take_recorder.h"
#include "watch/watcher.h"

namespace lm::cli {

/// "3.120 s" of so many nanoseconds.
std::string secondsText(std::int64_t ns);

/// A line for each, then how many are not as wanted; with newlines, empty without assertions.
std::string verdictLines(const std::vector<watch::Verdict>& verdicts);
void writeVerdicts(JsonWriter& json, const std::vector<watch::Verdict>& verdicts);
TestCase verdictCase(const watch::Verdict& verdict, double seconds);
bool allAsWanted(const std::vector<watch::Verdict>& verdicts);

/// Times count from `zeroNs`, that of the first record.
void writeTakes(JsonWriter& json, const std::vector<watch::Take>& takes, std::int64_t zeroNs);

}  // namespace lm::cli
