// The subcommand `diff`: parameter files beside each other, or beside what the ECU holds.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "cli/command.h"
#include "cli/image_source.h"
#include "params/parameter_set.h"
#include "session/folder_filter.h"

namespace lm::cli {

/// Exit codes: 0 no difference, 3 differences, 4 no ECU answered, 1 any other error, also one parameter that
/// cannot be read.
class DiffCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    void addOptions(OptionSet& options) override;
    Result<void> prepare(Form form) override;
    Needs needs(Needs most) const override { return hasEcu() ? image_.needs(most) : Needs::configuration; }
    session::SessionOptions sessionOptions() const override { return {.digest = true}; }
    int unansweredCode() const override { return kUnanswered; }
    int run(Workplace& place) override;

  private:
    /// What may be compared, and what could not be read.
    struct Sets {
        std::array<params::ParameterSet, 2> sides;
        std::vector<std::string> unread;
        std::vector<std::string> notHeld;  ///< unread ones, and what an image does not hold
        std::size_t notInFile = 0;         ///< of what only the ECU has, when that does not count
    };

    static constexpr int kDifferent = 3;
    static constexpr int kUnanswered = 4;
    static constexpr std::string_view kEcu = "ecu";

    bool hasEcu() const { return a_ == kEcu || b_ == kEcu; }
    const std::string& operand(std::size_t side) const { return side == 0 ? a_ : b_; }
    bool isImage(std::size_t side) const;
    bool isFile(std::size_t side) const { return operand(side) != kEcu && !isImage(side); }
    bool openImages(Workplace& place);
    bool tellLeftOut(Workplace& place, const Sets& sets) const;
    Result<void> readSides(Workplace& place, const session::FolderFilter& folders, Sets& sets) const;
    Result<void> keepWanted(const session::FolderFilter& folders, Sets& sets) const;
    int compareAll(Workplace& place, const a2l::Description* description);

    std::string a_;
    std::string b_;
    std::vector<std::string> patterns_;
    std::vector<std::string> groups_;
    std::vector<std::string> functions_;
    bool complete_ = false;
    std::array<std::optional<params::ParameterSet>, 2> files_;  ///< read before the ECU is asked
    ImageSource image_;                                         ///< in place of the ECU
    std::array<std::unique_ptr<session::ImageValues>, 2> images_;
    std::vector<std::string> notes_;
};

}  // namespace lm::cli
