// Collects the parameters of a file while it is read: each is checked when it comes, faults and warnings tell
// the line, and axes that several share are set right at the end.
//
// Threads: one at a time. Lifetime: owns what it was given.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/result.h"
#include "params/physical_form.h"

namespace lm::params {

class SetReading {
  public:
    /// `form` is what messages begin with, such as "DCM".
    explicit SetReading(std::string_view form) : form_(form) {}

    Origin& origin() { return read_.set.origin; }

    /// "FORM line N: WHAT".
    Error error(std::size_t line, std::string_view what) const;
    void warn(std::size_t line, std::string_view what);
    /// A parameter that is in the file and not in the set.
    void leaveOut(std::size_t line, const std::string& name, std::string_view why);

    /// Errors: counts that do not fit the shape, names that no A2L can have, and a name that was there
    /// before. A parameter without values is left out with a warning.
    Result<void> add(Parameter parameter, std::size_t line);

    /// All that was added, sorted. Where a parameter names its axis and the axis is in the set, too, that one
    /// tells the kind and the points.
    Result<ReadSet> finish() &&;

  private:
    std::string place(std::size_t line, std::string_view what) const;
    void settleAxes(Parameter& parameter);

    std::string form_;
    ReadSet read_;
    std::unordered_map<std::string, std::size_t> lines_;  ///< of the parameters, by name
};

}  // namespace lm::params
