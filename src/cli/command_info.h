// The subcommand `info`: what the ECU told at CONNECT, its DAQ abilities and its status.
//
// Threads: one thread; the texts are pure functions. Lifetime: nothing is kept.
#pragma once

#include <string>

#include "cli/command.h"
#include "session/session.h"

namespace lm::cli {

/// The lines "resources" and "communication".
std::string connectLines(const xcp::ConnectInfo& info);

/// The line "DAQ" and one line per event channel.
std::string daqLines(const xcp::DaqCapabilities& daq);

/// The member "ecu" of JSON objects.
void writeEcu(JsonWriter& json, const session::Session& session);

class InfoCommand final : public ICommand {
  public:
    void addOptions(OptionSet& options) override;
    Needs needs(Needs most) const override { return offline_ ? Needs::configuration : most; }
    session::SessionOptions sessionOptions() const override { return {.a2lOptional = true}; }
    int run(Workplace& place) override;

  private:
    bool offline_ = false;
};

}  // namespace lm::cli
