// The seam between the XCP master and a medium: whole XCP packets go down through ITransport and come up
// through IPacketSink. Framing is the transport's business, the contents are the master's.
//
// Threads: setSink, open and close belong to the owner; send may be called from any thread once open. Both
// operations of IPacketSink are called on the transport's receive thread.
// Lifetime: the sink is borrowed and must outlive the transport or be replaced by nullptr first; packet bytes
// are valid during the call only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/result.h"

namespace lm::xcp {

/// When a packet arrived, in nanoseconds.
struct ReceiveTime {
    /// Host steady clock, not before the arrival: an answer stamped earlier than its command is dropped.
    std::int64_t hostNs = 0;
    std::int64_t hardwareNs = 0;  ///< stamped by the hardware, 0 when it gives none
};

/// See transport_event.h.
struct TransportEvent;
/// See packet.h.
struct Packet;

class IPacketSink {
  public:
    virtual ~IPacketSink() = default;

    /// One received packet: response, error, event, service request or DTO.
    virtual void onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) = 0;

    /// A condition of the medium (bus state, lost frames, failed reception).
    virtual void onTransportEvent(const TransportEvent& event) = 0;
};

class ITransport {
  public:
    virtual ~ITransport() = default;

    virtual void setSink(IPacketSink* sink) = 0;

    /// Opening an open transport succeeds and changes nothing.
    virtual Result<void> open() = 0;

    /// Idempotent. No callback is running or will run once it has returned.
    virtual void close() = 0;

    /// Sends one packet of 1 to maxPacketSize() bytes.
    virtual Result<void> send(const std::uint8_t* data, std::size_t length) = 0;

    virtual std::size_t maxPacketSize() const = 0;

    /// These commands are most likely the next, in this order: a transport whose way is long may fetch the
    /// answers in one go.
    virtual void foresee(std::span<const Packet> /*commands*/) {}

    /// Whoever held the right to send has let go of it: what follows may be another operation's.
    virtual void operationEnded() {}
};

}  // namespace lm::xcp
