// How a command shares its ECU with others: it goes through the program of the user that holds the ECU, or
// holds it itself and lets others in (docs/sharing.md).
//
// Threads: the main thread. Lifetime: outlives the session; stop() comes before that is closed.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "cli/command.h"
#include "cli/options.h"
#include "host/host.h"
#include "host/host_claim.h"
#include "http/server.h"
#include "session/session.h"

namespace lm::cli {

class Sharing {
  public:
    Sharing(SharingRole role, const Options& options) : role_(role), options_(options) {}
    ~Sharing() { stop(); }
    Sharing(const Sharing&) = delete;
    Sharing& operator=(const Sharing&) = delete;

    /// For SessionOptions::adoptMedium: the medium as it is, or one that goes through the program that holds
    /// the ECU. Errors: that another program holds it, and this command cannot go through it; those of
    /// HostLink::attach().
    Result<std::unique_ptr<session::IMedium>> adopt(std::unique_ptr<session::IMedium> medium,
                                                    const session::SessionConfig& config,
                                                    const StopToken& stop);

    /// From now on others may come, if this command is one that holds. What stands in the way is logged.
    void start(session::Session& session, bool readOnly);
    /// As start(), of a command with a server of its own: it adds the routes to that, and listens at
    /// socketPath() too. None: nothing is shared.
    host::Host* host(session::Session& session, bool readOnly, std::function<std::string()> recording);
    std::filesystem::path socketPath() const {
        return claim_ ? claim_->socketPath() : std::filesystem::path();
    }
    /// No one's commands come any more; routes answer so.
    void endWork();
    /// While the result lives no one else's commands come between. Errors: those of host::Host::own().
    Result<std::optional<host::Host::Own>> own();
    /// No one comes any more, and who is at work is let finish a write.
    void stop();

  private:
    Result<std::unique_ptr<session::IMedium>> attach(std::unique_ptr<session::IMedium> medium,
                                                     const host::FoundHost& found,
                                                     const session::SessionConfig& config,
                                                     const StopToken& stop);
    Result<void> claim(const std::string& place);
    Result<void> startHost(session::Session& session, bool readOnly, std::function<std::string()> recording);
    Result<void> serve(session::Session& session, bool readOnly);

    const SharingRole role_;
    const Options& options_;
    host::A2lFile a2l_;
    std::optional<host::HostClaim> claim_;
    std::unique_ptr<host::Host> host_;
    std::unique_ptr<http::Server> server_;
};

}  // namespace lm::cli
