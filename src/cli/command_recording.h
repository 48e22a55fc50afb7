// The subcommands of `recording`: what is in a recording directory, whether it is sound, how to mend it, and
// how its signals look.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "cli/command.h"
#include "cli/recording_plot.h"

namespace lm::cli {

class RecordingInfoCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;

  private:
    std::string directory_;
    bool exact_ = false;
};

/// The exit code tells damage, too.
class RecordingCheckCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;

  private:
    std::string directory_;
};

/// The exit code tells damage that could not be mended, too.
class RecordingRepairCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;

  private:
    std::string directory_;
};

class RecordingShowCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;
    const std::string& directory() const { return directory_; }
    const PlotOptions& options() const { return options_; }

  private:
    std::string directory_;
    PlotOptions options_;
};

}  // namespace lm::cli
