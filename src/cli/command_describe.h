// The subcommand `describe`: all that the A2L says about one object, its conversion, and where it is used.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "a2l/description.h"
#include "cli/command.h"
#include "cli/json_writer.h"

namespace lm::cli {

class DescribeCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    void addOptions(OptionSet& options) override;
    bool takesSeveralEcus() const override { return true; }
    int run(Workplace& place) override;

  private:
    int show(Workplace& place, const a2l::Description& description, const std::string& name) const;

    std::string name_;
};

/// The members that `describe` has about an object. Errors: notFound, and of a part that the object does not
/// have.
Result<void> writeDescription(const a2l::Description& description, const std::string& name, JsonWriter& json);

}  // namespace lm::cli
