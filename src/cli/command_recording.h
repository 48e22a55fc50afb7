// The subcommands of `recording`, each for one or several recordings: what is in them, whether it is sound,
// how to mend it, and how its signals look.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/recording_plot.h"

namespace lm::cli {

class RecordingInfoCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;

  private:
    std::vector<std::string> directories_;
    bool exact_ = false;
};

/// The exit code tells damage, too.
class RecordingCheckCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;

  private:
    std::vector<std::string> directories_;
};

/// The exit code tells damage that could not be mended, too.
class RecordingRepairCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;

  private:
    static int repairOne(Workplace& place, const std::string& directory);

    std::vector<std::string> directories_;
};

class RecordingShowCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    int run(Workplace& place) override;
    const std::vector<std::string>& directories() const { return directories_; }
    const PlotOptions& options() const { return options_; }

  private:
    std::vector<std::string> directories_;
    PlotOptions options_;
};

}  // namespace lm::cli
