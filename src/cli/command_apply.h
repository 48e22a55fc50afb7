// The subcommand `apply`: a parameter file into the ECU or into an image of its memory, and back again.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "cli/apply_undo.h"
#include "cli/command.h"
#include "cli/image_source.h"
#include "params/parameter_set.h"
#include "session/parameter_apply.h"

namespace lm::cli {

/// Everything is checked before the first write; what fails after it is taken back. Exit codes: 0 as wanted,
/// 4 no ECU answered, 1 any other error.
class ApplyCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    void addOptions(OptionSet& options) override;
    Result<void> prepare(Form form) override;
    Needs needs(Needs most) const override { return image_.needs(most); }
    session::SessionOptions sessionOptions() const override { return {.digest = true}; }
    int unansweredCode() const override { return kUnanswered; }
    int run(Workplace& place) override;

  private:
    static constexpr int kUnanswered = 4;

    /// What is written to: an ECU or an image.
    struct Target;

    Result<void> checkUndo() const;
    Result<void> checkImage() const;
    bool takeImage(Workplace& place, const session::ImageValues* beside);
    Result<void> keepWanted(const a2l::Description& description);
    Result<session::ApplyPlan> makePlan(const Target& target);
    int applyTo(const Target& target);
    session::ApplyOutcome write(const Target& target, const session::ApplyPlan& plan) const;
    int writeAll(const Target& target, const session::ApplyPlan& plan);
    Result<std::optional<std::filesystem::path>> keepUndo(const Target& target,
                                                          const session::ApplyPlan& plan) const;
    Result<bool> isPageWanted(const Target& target, const session::ApplyPlan& plan) const;
    session::ApplyOptions optionsOf(const Target& target, const session::ApplyPlan& plan) const;
    Result<void> writeImage(const Target& target) const;

    std::optional<std::string> file_;
    std::vector<std::string> patterns_;
    std::vector<std::string> groups_;
    std::vector<std::string> functions_;
    bool dryRun_ = false;
    bool keepGoing_ = false;
    bool extendedLimits_ = false;
    std::optional<std::uint32_t> page_;
    bool yes_ = false;
    std::optional<std::string> undo_;
    std::optional<std::string> undoFile_;
    ImageSource image_;
    std::optional<std::string> output_;
    params::ParameterSet set_;  ///< read before the ECU is asked
    std::vector<std::string> notes_;
    std::optional<ApplyUndo> undoing_;
};

}  // namespace lm::cli
