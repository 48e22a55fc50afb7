// The subcommand `check`: whether ECU and A2L belong together, a line for each thing that one of them tells.
//
// Threads: one thread. Lifetime: nothing is kept.
#pragma once

#include <optional>
#include <string>

#include "cli/command.h"
#include "params/memory_file.h"
#include "session/checksum_file.h"

namespace lm::cli {

/// Exit code 0 when all is as wanted, 3 when something differs, 4 when no one answered, 1 for all else.
class CheckCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    void addOptions(OptionSet& options) override;
    Result<void> prepare(Form form) override;
    session::SessionOptions sessionOptions() const override {
        return {.otherSoftware = session::OtherSoftware::shown};
    }
    int unansweredCode() const override;
    int run(Workplace& place) override;

  private:
    std::optional<std::string> saveTo_;
    bool force_ = false;
    std::optional<std::string> compareWith_;
    std::optional<session::ChecksumFile> against_;
    std::optional<std::string> imageFile_;
    std::optional<params::MemoryFile> image_;
};

}  // namespace lm::cli
