// Which commands another program may send through this one's connection, and where the slave's memory pointer
// (MTA) is after them: what changes DAQ lists, the session or the keys is the host's own business.
//
// Threads: pure functions; an MtaTracker belongs to one thread at a time. Lifetime: nothing is kept.
#pragma once

#include <optional>

#include "core/ecu_address.h"
#include "core/result.h"
#include "xcp/packet.h"

namespace lm::host {

enum class CommandKind : std::uint8_t {
    reads,
    writes,   ///< changes the ECU's memory or pages
    refused,  ///< would disturb the host's session
};
CommandKind kindOf(const xcp::Packet& command);

/// The shortest answer that fits, in bytes.
std::size_t leastAnswer(const xcp::Packet& command, const xcp::ConnectInfo& slave);
/// 0 for t1 to 6 for t7.
unsigned timeoutOf(const xcp::Packet& command);

/// Follows the pointer, so that a command that uses it can be sent once more.
class MtaTracker {
  public:
    /// After a positive answer.
    void take(const xcp::Packet& command, const xcp::ConnectInfo& slave);
    /// Where it is; none: not known.
    const std::optional<xcp::Address>& mta() const { return mta_; }

  private:
    void advance(std::size_t bytes);

    std::optional<xcp::Address> mta_;
};

}  // namespace lm::host
