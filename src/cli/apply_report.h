// What `apply` did, as text or as JSON: what was changed, what failed, what was put back.
//
// Threads: the main thread. Lifetime: borrows what it shows.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/results.h"
#include "params/parameter_diff.h"
#include "session/parameter_apply.h"

namespace lm::cli {

class ApplyReport final : public IReport {
  public:
    ApplyReport(const session::ApplyPlan& plan, const session::ApplyOutcome& outcome,
                const std::optional<std::string>& undoFile);

    void print(Output& output) const override;
    void write(JsonWriter& json) const override;

  private:
    const session::ApplyPlan& plan_;
    const session::ApplyOutcome& outcome_;
    const std::optional<std::string>& undoFile_;
    params::SetDifference changes_;  ///< of what was written and not taken back
};

/// What an undo, or a failure, made of each object.
class PutBackReport final : public IReport {
  public:
    explicit PutBackReport(const std::vector<session::PutBack>& objects) : objects_(objects) {}

    void print(Output& output) const override;
    void write(JsonWriter& json) const override;

  private:
    const std::vector<session::PutBack>& objects_;
};

/// How many objects are not as they were.
std::size_t notPutBack(const std::vector<session::PutBack>& objects);

}  // namespace lm::cli
