// How a command shares its ECU with others: it goes through the program of the user that holds the ECU, or
// holds it itself and lets others in (docs/sharing.md).
//
// Threads: the main thread. Lifetime: outlives the session; stop() comes before that is closed.
#pragma once

#include <memory>
#include <optional>

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
    Result<void> serve(session::Session& session, bool readOnly);

    const SharingRole role_;
    const Options& options_;
    host::A2lFile a2l_;
    std::optional<host::HostClaim> claim_;
    std::unique_ptr<host::Host> host_;
    std::unique_ptr<http::Server> server_;
};

}  // namespace lm::cli
