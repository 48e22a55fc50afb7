// The medium between the simulated ECU and its master: what the program's loop needs of it, and no more.
//
// Threads: the loop's thread alone.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <poll.h>
#include <span>
#include <vector>

#include "core/result.h"
#include "sim/outbox.h"

namespace lm::sim {

/// A time that does not come.
inline constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
inline constexpr int kSocketBuffer = 8 * 1024 * 1024;

struct MediumCounters {
    std::uint64_t packetsSent = 0;
    std::uint64_t datagramsSent = 0;  ///< on a serial line: frames
    std::uint64_t sendFailures = 0;   ///< packets that the system did not take, or that no one was there for
    std::uint64_t packetsLost = 0;    ///< packets lost on order
    std::uint64_t packetsMalformed = 0;  ///< packets sent with a wrong length on order
};

class IMedium {
  public:
    using Handler = std::function<void(std::span<const std::uint8_t>)>;

    IMedium() = default;
    IMedium(const IMedium&) = delete;
    IMedium& operator=(const IMedium&) = delete;
    virtual ~IMedium() = default;

    /// The descriptors to wait for, with the conditions to wait for.
    virtual std::vector<pollfd> descriptors() const = 0;
    /// Hands on the command packets that have come on one descriptor. An error ends the program.
    virtual Result<void> receive(int descriptor, const Handler& handler) = 0;
    /// Sends packets to the master that connected last; none yet: they are dropped. Failures are counted.
    virtual void send(const Outbox& packets, std::int64_t nowNs) = 0;
    /// When the medium has something to do by itself (packets that it holds back, text to print).
    virtual std::int64_t dueNs() const = 0;
    /// Does it; before its time, what is held back leaves. An error ends the program.
    virtual Result<void> onDue(std::int64_t nowNs) = 0;
    /// Pulls the plug, or puts it in again. An error ends the program.
    virtual Result<void> togglePlug() = 0;
    virtual const MediumCounters& counters() const = 0;
};

}  // namespace lm::sim
