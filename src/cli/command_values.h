// The subcommands `get` and `set`: values of the ECU, or of an image of its memory, by name.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/command.h"
#include "cli/image_source.h"
#include "cli/several_ecus.h"

namespace lm::cli {

/// NAME=VALUE cut at the first '='; none when there is no '=' or nothing before it.
std::optional<std::pair<std::string_view, std::string_view>> splitAssignment(std::string_view text);

/// Writes NAME=VALUE as `set` does, dependents included, and shows it as `set` does. False when it failed,
/// which has been told.
bool assignOne(const std::string& assignment, Workplace& place);

/// Prints one line per scalar and a table per curve or map; a failure does not stop the rest, a stop request
/// and a failed output do.
class GetCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    void addOptions(OptionSet& options) override;
    void overrule(session::SessionConfig& config) const override;
    Needs needs(Needs most) const override { return image_.needs(most); }
    bool takesSeveralEcus() const override { return !image_.isGiven(); }
    int run(Workplace& place) override;
    const std::vector<std::string>& names() const { return names_; }

  private:
    int runOnSeveral(Workplace& place);

    std::vector<std::string> names_;
    std::vector<std::string> groups_;
    std::vector<std::string> functions_;
    ImageSource image_;
    std::vector<std::string> failOn_;
    bool exact_ = false;
    bool plot_ = false;
};

/// Writes each value and prints it as read back. A failed output stops nothing: what was asked for is
/// written. Of an image all is written or, when one value was refused, no file at all.
class SetCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    void addOptions(OptionSet& options) override;
    void overrule(session::SessionConfig& config) const override;
    Result<void> prepare(Form form) override;
    Needs needs(Needs most) const override { return image_.needs(most); }
    bool takesSeveralEcus() const override { return !image_.isGiven(); }
    int run(Workplace& place) override;

  private:
    int runOnSeveral(Workplace& place);
    std::vector<EcuWord> assignmentsByEcu(const Workplace& place) const;
    int finishImage(const session::ImageValues& image, std::size_t failed, Workplace& place) const;

    std::vector<std::string> assignments_;
    ImageSource image_;
    std::optional<std::string> output_;
    bool allowMeasurements_ = false;
    bool extendedLimits_ = false;
    bool noDependents_ = false;
    std::vector<std::string> failOn_;
    bool exact_ = false;
};

}  // namespace lm::cli
