// The subcommands `get` and `set`: values of the ECU by name.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/command.h"

namespace lm::cli {

/// NAME=VALUE cut at the first '='; none when there is no '=' or nothing before it.
std::optional<std::pair<std::string_view, std::string_view>> splitAssignment(std::string_view text);

/// Prints one line per scalar and a table per curve or map; a failure does not stop the rest, a stop request
/// and a failed output do.
class GetCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    void overrule(session::SessionConfig& config) const override;
    int run(Workplace& place) override;
    const std::vector<std::string>& names() const { return names_; }

  private:
    std::vector<std::string> names_;
    bool exact_ = false;
    bool plot_ = false;
};

/// Writes each value and prints it as read back. A failed output stops nothing: what was asked for is
/// written.
class SetCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    void overrule(session::SessionConfig& config) const override;
    int run(Workplace& place) override;

  private:
    std::vector<std::string> assignments_;
    bool allowMeasurements_ = false;
    bool extendedLimits_ = false;
    bool noDependents_ = false;
    bool exact_ = false;
};

}  // namespace lm::cli
