// What a measurement counted, as lines for people and members of JSON, and whether that is a failure.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/json_writer.h"
#include "session/measurement_types.h"

namespace lm::cli {

/// "measuring 3 signal(s) in 2 DAQ list(s), estimated bus load 1.5 % ... - Ctrl-C to stop".
std::string startLine(const session::PlanSummary& summary, const std::string& recordDirectory);

/// The line that says which events the load of the start line does not count; empty when there are none.
std::string outsideLoadLine(const session::PlanSummary& summary);

/// The counters of the statistics line, without its newline.
std::string statisticsLine(double seconds, const session::MeasurementStats& stats);

/// Of several ECUs a line for each: what it counted, and how its clock ran.
std::string ecuLines(const session::MeasurementStats& stats);

/// The line that says of which events "missed cycles" counts nothing; empty when there are none.
std::string uncheckedLine(const session::PlanSummary& summary);

/// Every loss that the statistics line does not name ("unknown DTOs 3, UDP counter gaps 1"); empty when there
/// was none.
std::string otherLosses(const session::MeasurementStats& stats);

/// A line for each DAQ list that gave no record, then why, when that is known; without newlines.
std::vector<std::string> silentLists(const session::MeasurementStats& stats);

/// Every loss that either of them names, empty when there was none.
std::string lossesInWords(const session::MeasurementStats& stats);

/// Whether something of `failOn` ("losses", "outage", "empty") happened.
bool failsOn(const std::vector<std::string>& failOn, const session::MeasurementStats& stats);

/// What is told instead of the statistics line when the ECU did not confirm the stop: the records, and every
/// count of that line that is not zero.
std::string countsWithoutStop(const session::MeasurementStats& stats);

/// The line that says where a recording has the zero of the printed times: its own is its start.
std::string zeroLine(const session::MeasurementStats& stats, std::int64_t firstNs);

/// "offset 1.234567 s, drift +50.1 ppm, residual 0.012 ms over 9.9 s": `offsetNs` is counted from where the
/// caller likes.
std::string ecuClockText(std::int64_t offsetNs, double driftPpm, double residualNs, std::int64_t spanNs);

/// The member "statistics" of the last JSON line.
void writeStatistics(JsonWriter& json, double seconds, const session::PlanSummary& summary,
                     const session::MeasurementStats& stats);

}  // namespace lm::cli
