// The subcommand `save-config`: the configuration in force as a file.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <filesystem>
#include <string>

#include "cli/command.h"

namespace lm::cli {

class SaveConfigCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    bool takesSeveralEcus() const override { return true; }
    int run(Workplace& place) override;

  private:
    Result<void> carryOver(session::SessionConfig& config) const;
    bool isA2lLost(const std::filesystem::path& a2l) const;

    std::string file_;
};

}  // namespace lm::cli
