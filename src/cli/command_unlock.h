// The subcommand `unlock`: tries seed & key and tells what became of each resource.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <string>
#include <vector>

#include "cli/command.h"

namespace lm::cli {

class UnlockCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    session::SessionOptions sessionOptions() const override {
        return {.a2lOptional = true, .otherSoftware = session::OtherSoftware::warned};
    }
    int run(Workplace& place) override;

  private:
    std::vector<std::string> names_;
};

}  // namespace lm::cli
