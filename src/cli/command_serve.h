// The subcommand `serve`: holds the ECU and offers it over HTTP to browsers, scripts and other programs.
//
// Threads: the main thread waits; src/serve has its own. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "cli/command.h"

namespace lm::cli {

struct HostPort {
    std::string host;
    std::uint16_t port = 0;
};
/// "127.0.0.1:8080", "[::1]:8080". Error: invalidArgument.
Result<HostPort> parseListen(const std::string& text);

class ServeCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    void overrule(session::SessionConfig& config) const override;
    Result<void> prepare(Form form) override;
    int run(Workplace& place) override;
    SharingRole sharing() const override { return SharingRole::holds; }

  private:
    std::string listen_;
    bool readOnly_ = false;
    bool allowWrites_ = false;
    std::string recordings_;
    std::string host_ = "127.0.0.1";
    std::uint16_t port_ = 0;
};

}  // namespace lm::cli
