// The right of one client to send commands, for the length of one operation: runs them through the host's
// connection, and finishes a write that the client left half-way.
//
// Answers are certain when they leave: a request whose answers are not in step is done again from where the
// memory pointer was, so it does what it did before.
//
// Threads: one at a time. Lifetime: borrows the session.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/result.h"
#include "host/command_filter.h"
#include "session/object_bytes.h"
#include "session/session.h"

namespace lm::host {

/// Who asks.
struct Client {
    std::int64_t pid = 0;
    std::string user;
    std::string command;

    /// "USER, COMMAND, pid N"
    std::string text() const;
};

class Lease {
  public:
    Lease(session::Session& session, Client client, std::uint64_t connection)
        : session_(session),
          client_(std::move(client)),
          connection_(connection),
          sessionNumber_(session.master().connectionNumber()) {}

    const Client& client() const { return client_; }
    /// Of the requests that may use it.
    std::uint64_t connection() const { return connection_; }

    struct Answers {
        std::vector<xcp::Packet> packets;  ///< positive and negative ones, in order
        std::optional<Error> error = {};   ///< why there are no more
    };
    /// Up to the first that is refused or fails, and for so long at most that no one waits in vain for the
    /// rest.
    Answers run(const std::vector<xcp::Packet>& commands, bool readOnly);

    void announce(std::vector<session::ObjectBytes> changes);
    /// Written and read back by the client: nothing is left to finish.
    void settle();
    /// The client is gone. What it had begun to write is written to its end and read back; what cannot be is
    /// told.
    void finishWrite();

  private:
    Result<void> check(const xcp::Packet& command, bool readOnly) const;
    Result<std::vector<xcp::Packet>> runOnce(const std::vector<xcp::Packet>& commands, bool again,
                                             std::optional<Error>& failure);
    Result<xcp::Packet> send(xcp::Connection::Turn& turn, const xcp::Packet& command,
                             const MtaTracker& mta) const;

    session::Session& session_;
    const Client client_;
    const std::uint64_t connection_;
    const std::uint64_t sessionNumber_;  ///< of the connection to the ECU
    MtaTracker mta_;                     ///< before the request that runs
    MtaTracker mtaAfter_;
    std::vector<session::ObjectBytes> announced_;
    bool begun_ = false;  ///< a write packet of what was announced went out
};

}  // namespace lm::host
