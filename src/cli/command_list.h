// The subcommand `list`: the objects of an A2L whose name contains a text or matches a pattern.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <string>
#include <vector>

#include "a2l/description.h"
#include "cli/command.h"
#include "cli/json_writer.h"

namespace lm::cli {

class ListCommand final : public ICommand {
  public:
    struct Options {
        std::string pattern;
        std::vector<std::string> groups;
        std::vector<std::string> functions;
        bool onlyParameters = false;
        bool onlyMeasurements = false;
        bool onlyAxes = false;
        bool leaves = false;
        bool details = false;
        bool inDescriptions = false;
    };

    void addOptions(OptionSet& options) override;
    bool takesSeveralEcus() const override { return true; }
    int run(Workplace& place) override;
    const Options& options() const { return options_; }

  private:
    Options options_;
};

/// The members "objects" and "count" of what `list` with these options finds. Errors: an unknown folder, too
/// many parts.
Result<void> writeList(const a2l::Description& description, const ListCommand::Options& options,
                       JsonWriter& json);

}  // namespace lm::cli
