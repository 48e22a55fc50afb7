// The subcommand `describe`: all that the A2L says about one object, its conversion, and where it is used.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "cli/command.h"

namespace lm::cli {

class DescribeCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;

  private:
    std::string name_;
};

}  // namespace lm::cli
