// Two sets of parameters side by side, as text or as JSON: what differs, and by how much.
//
// Threads: the main thread. Lifetime: borrows the sets and their difference.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "cli/results.h"
#include "params/parameter_diff.h"

namespace lm::cli {

/// One of the two: what the user called it, and what is in it.
struct DiffSide {
    std::string name;
    const params::ParameterSet* set = nullptr;
    std::optional<std::size_t> count = {};  ///< of parameters, when the set holds some of them

    std::size_t parameters() const { return count.value_or(set->parameters.size()); }
};

/// Whether both tell the EPK of the software that they are of, and these differ.
bool haveOtherSoftware(const params::ParameterSet& a, const params::ParameterSet& b);

/// One parameter, as text with the first of its numbers below it.
void printDifference(const params::ParameterDifference& one, Output& output);
void writeDifference(JsonWriter& json, const params::ParameterDifference& one);

/// As text a line for each parameter, with the first of its numbers below it.
class DiffReport final : public IReport {
  public:
    /// `notInFile`: how many were not compared, as the file does not name them.
    DiffReport(const DiffSide& a, const DiffSide& b, const params::SetDifference& difference,
               std::size_t notInFile = 0)
        : a_(a), b_(b), difference_(difference), notInFile_(notInFile) {}

    void print(Output& output) const override;
    void write(JsonWriter& json) const override;

  private:
    const DiffSide& a_;
    const DiffSide& b_;
    const params::SetDifference& difference_;
    const std::size_t notInFile_;
};

}  // namespace lm::cli
