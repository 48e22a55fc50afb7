// The subcommand `save-config`: the configuration in force as a file.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "cli/command.h"

namespace lm::cli {

class SaveConfigCommand final : public ICommand {
  public:
    void addOptions(CLI::App& app) override;
    int run(Workplace& place) override;

  private:
    std::string file_;
};

}  // namespace lm::cli
