// What holds for every parameter file with physical values: what was read, written and read again is the
// same.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <algorithm>
#include <string_view>

#include "fuzz_input.h"
#include "params/physical_form.h"

namespace lm::fuzz {

inline bool sameValues(const std::vector<value::Value>& a, const std::vector<value::Value>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), params::sameValue);
}

inline void requireSame(const params::Parameter& a, const params::Parameter& b) {
    require(a.name == b.name && a.shape == b.shape && a.dimensions == b.dimensions, "the same shapes");
    require(a.description == b.description && a.unit == b.unit && a.function == b.function, "the same texts");
    require(sameValues(a.values, b.values), "the same values");
    require(a.axes.size() == b.axes.size(), "as many axes");
    for (std::size_t i = 0; i < a.axes.size(); ++i) {
        const params::ParameterAxis& one = a.axes[i];
        const params::ParameterAxis& other = b.axes[i];
        require(one.kind == other.kind && one.reference == other.reference && one.unit == other.unit,
                "the same axes");
        require(sameValues(one.points, other.points), "the same points");
    }
}

template <typename Read, typename Write>
void checkForm(std::string_view text, const Read& read, const Write& write) {
    const auto first = read(text);
    if (!first) {
        require(!first.error().message.empty(), "an error says what is wrong");
        return;
    }
    params::ParameterSet held = first.value().set;
    const auto written = write(held);
    require(written.ok(), "what was read can be written");
    std::erase_if(held.parameters, [&](const params::Parameter& parameter) {
        const auto& all = written.value().leftOut;
        return std::any_of(all.begin(), all.end(),
                           [&](const params::LeftOut& one) { return one.name == parameter.name; });
    });
    const auto again = read(written.value().text);
    require(again.ok(), "what was written can be read");
    require(again.value().set.parameters.size() == held.parameters.size(), "as many parameters");
    for (std::size_t i = 0; i < held.parameters.size(); ++i)
        requireSame(held.parameters[i], again.value().set.parameters[i]);
}

}  // namespace lm::fuzz
