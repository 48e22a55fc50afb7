// The way of a command to the ECU that another program of the user holds: finds out who that is and whether
// both mean the same ECU, and sends what it has to send there.
//
// Threads: one at a time. Lifetime: owns its connection.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/result.h"
#include "core/stop_token.h"
#include "host/host_claim.h"
#include "host/lease.h"
#include "host/protocol.h"
#include "http/client.h"

namespace lm::host {

/// What is known of the program that is gone through.
struct HostFacts {
    Holder holder;
    std::string recording;  ///< empty: none runs
    bool readOnly = false;
    xcp::Packet connect;  ///< what the ECU answered to CONNECT; empty: it is not connected

    /// "pid 4711 (alice: xcplumo-cli measure), recording to DIR"
    std::string text() const;
};

class HostLink {
  public:
    /// `command` names the caller to others. Errors: permissionDenied when the host reads another A2L,
    /// notOpen "PLACE is held by ..., which does not let others in".
    static Result<std::unique_ptr<HostLink>> attach(const FoundHost& found, std::string command,
                                                    const A2lFile& a2l, const StopToken& stop);

    const HostFacts& host() const { return facts_; }

    /// Waits for `longest` at most until no one else is at work. Errors: timeout, closed.
    Result<void> begin(std::chrono::milliseconds longest, const StopToken& stop);
    /// Answers of as many of the commands as were carried out, the first ones. Errors: closed "... has
    /// ended".
    Result<Lease::Answers> send(const std::vector<xcp::Packet>& commands, const StopToken& stop);
    Result<void> announce(const std::vector<session::ObjectBytes>& changes);
    Result<void> tellWritten(const std::vector<session::ObjectBytes>& changes);
    Result<void> tellParameter(const storage::ParameterWrite& write);
    void end();

  private:
    HostLink(http::Client client, HostFacts facts, std::string command)
        : client_(std::move(client)), facts_(std::move(facts)), command_(std::move(command)) {}

    static Result<nlohmann::json> introduce(http::Client& client, A2lFile a2l, const std::string& command,
                                            const StopToken& stop);
    Result<nlohmann::json> ask(std::string_view route, nlohmann::json body, std::chrono::milliseconds limit,
                               const StopToken& stop = {});

    http::Client client_;
    HostFacts facts_;
    const std::string command_;
    bool broken_ = false;
    std::optional<Error> brokenBy_;  ///< none: its program has ended
};

}  // namespace lm::host
