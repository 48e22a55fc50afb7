// The subcommand `info`: what the ECU told at CONNECT, its DAQ abilities and its status.
//
// Threads: one thread; the texts are pure functions. Lifetime: nothing is kept.
#pragma once

#include <string>
#include <vector>

#include "cli/command.h"
#include "session/session.h"

namespace lm::cli {

/// The lines "resources" and "communication".
std::string connectLines(const xcp::ConnectInfo& info);

/// The line "DAQ" and one line per event channel.
std::string daqLines(const xcp::DaqCapabilities& daq);

/// One line per static or predefined list, and one for each part that the A2L told instead of the ECU.
std::string daqSourceLines(const xcp::DaqCapabilities& daq, const session::DaqOrigins& origins);

/// One line per DAQ list whose CAN identifier is known.
std::string canIdLines(const std::vector<session::DaqListId>& listIds);

/// The members "name", "address" and "description".
void writeEcuMembers(JsonWriter& json, const session::Session& session);
/// An object of them as member "ecu".
void writeEcu(JsonWriter& json, const session::Session& session);

class InfoCommand final : public ICommand {
  public:
    SharingRole sharing() const override { return SharingRole::attaches; }
    void addOptions(OptionSet& options) override;
    Needs needs(Needs most) const override { return offline_ ? Needs::configuration : most; }
    bool takesSeveralEcus() const override { return !offline_; }
    session::SessionOptions sessionOptions() const override {
        return {.a2lOptional = true, .otherSoftware = session::OtherSoftware::warned};
    }
    int run(Workplace& place) override;

  private:
    int runOnSeveral(Workplace& place) const;

    bool offline_ = false;
};

}  // namespace lm::cli
