// Values that are computed from others: what a DEPENDENT_CHARACTERISTIC has to become, and what a
// VIRTUAL_CHARACTERISTIC or a VIRTUAL measurement is.
//
// Threads: one at a time, that of the reader. Lifetime: the description is borrowed.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/dependency.h"
#include "a2l/description.h"
#include "core/result.h"

namespace lm::session {

/// The dependency of what has no place in the ECU and is computed when it is read; nullptr for all else.
const a2l::Dependency* virtualOf(const a2l::Description& description, std::string_view name);

class Computation {
  public:
    /// Physical numbers of what a name stands for in the ECU, one for each element.
    using ReadNumbers = std::function<Result<std::vector<double>>(std::string_view name)>;

    Computation(const a2l::Description& description, ReadNumbers read)
        : description_(description), read_(std::move(read)) {}

    /// What a name stands for from now on, whatever the ECU still holds.
    void assume(std::string_view name, std::vector<double> numbers);

    /// The numbers of a computed value: element by element of the sources, of which those with a single
    /// element serve all. Each source is read once. Errors: the reader's, those of a2l::formulaOf, and
    /// (invalidArgument) that the sources do not fit, that the formula gives no number, that a virtual value
    /// is computed from itself.
    Result<std::vector<double>> compute(const a2l::Dependency& dependency);

  private:
    Result<std::vector<double>> numbersOf(std::string_view name);

    const a2l::Description& description_;
    const ReadNumbers read_;
    std::map<std::string, std::vector<double>, std::less<>> known_;
    std::vector<std::string_view> path_;  ///< what is being computed
};

}  // namespace lm::session
