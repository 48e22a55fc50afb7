// The subcommand `export`: a recording as a file of other tools.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/command.h"
#include "exporter/export_plan.h"

namespace lm::cli {

/// Progress goes to standard error when that is a terminal. An error and a stop request leave no output file.
class ExportCommand final : public ICommand {
  public:
    struct Options {
        std::vector<std::string> directories;
        exporter::ExportOptions output;     ///< without what the two below say
        std::optional<std::string> format;  ///< none: as the output's name ends
        bool noCompress = false;
    };

    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;

  private:
    Options options_;
};

}  // namespace lm::cli
