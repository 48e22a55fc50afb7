// The subcommand `view`: recordings in the browser, without an ECU.
//
// Threads: the main thread waits; src/serve has its own. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/command.h"

namespace lm::cli {

class ViewCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;

  private:
    Result<void> checkOptions();

    std::vector<std::string> directories_;
    std::string listen_;
    std::string host_ = "127.0.0.1";
    std::uint16_t port_ = 0;
};

}  // namespace lm::cli
