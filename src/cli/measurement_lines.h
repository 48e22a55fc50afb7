// The lines that a measurement prints on standard output: text for people, JSON (docs/json.md) for programs.
//
// Threads: immutable once made, any thread. Lifetime: nothing of the plan is kept.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "session/measurement_types.h"
#include "session/session_state.h"
#include "value/value_text.h"

namespace lm::cli {

/// With verbal texts that do not steer the terminal.
value::Element printable(value::Element element);

class IMeasurementLines {
  public:
    virtual ~IMeasurementLines() = default;

    /// Whole lines, empty for none.
    virtual std::string start() const = 0;
    /// `ecu` is which of several, else empty.
    virtual std::string state(const std::string& ecu, session::SessionState state, const std::string& message,
                              const std::string& hint) const = 0;
    /// Appends the line of a record of DaqPlan::lists[list]; `sinceFirstNs` from the first record of all.
    virtual void appendRecord(std::string& text, std::size_t list, std::int64_t sinceFirstNs,
                              std::span<const std::uint8_t> record) const = 0;
};

/// "     1.235  NAME=VALUE UNIT  ..." for each record, nothing else.
std::unique_ptr<IMeasurementLines> textLines(const session::MeasurementPlan& plan, value::NumberStyle style);

/// JSON of which each line begins with `lineStart`; the first one also has `startMembers`.
std::unique_ptr<IMeasurementLines> jsonLines(const session::MeasurementPlan& plan, value::NumberStyle style,
                                             const std::string& lineStart, const std::string& startMembers);

}  // namespace lm::cli
