// Whether two physical values mean the same to the ECU, of which the A2L knows how it holds them.
//
// Threads: one at a time. Lifetime: the description is borrowed and must outlive this.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "a2l/description.h"
#include "a2l/object.h"
#include "params/parameter_set.h"
#include "value/element.h"
#include "value/value.h"

namespace lm::session {

/// The raw value of a verbal text. Of a table with a text for 0 and one for 1 alone "true" and "false" are
/// these two: other tools write truth values so, whatever the A2L calls them.
std::optional<double> rawOfText(const value::Element& element, std::string_view text);

class RawSteps {
  public:
    explicit RawSteps(const a2l::Description& description) : description_(description) {}

    /// Within half a step of the raw value, of a float as the same float; texts with the same raw value.
    /// False for what the A2L does not name.
    bool within(const params::Parameter& parameter, std::optional<std::size_t> axis, const value::Value& a,
                const value::Value& b);

  private:
    const value::Element* elementOf(const std::string& name, std::optional<std::size_t> axis);

    const a2l::Description& description_;
    std::string name_;  ///< of the object that was asked for last
    std::optional<a2l::Object> object_;
};

}  // namespace lm::session
