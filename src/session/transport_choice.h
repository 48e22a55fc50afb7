// Which medium reaches the ECU, from the configuration and the A2L's XCP interface data.
//
// Threads: nothing is kept. A CAN channel is opened (or joined), nothing else is. Lifetime: the setup owns
// its transport and its share of the channel; the pool's adapter must outlive it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "a2l/xcp_interface.h"
#include "core/result.h"
#include "session/can_access.h"
#include "session/session_config.h"
#include "xcp/serial_transport.h"
#include "xcp/transport.h"
#include "xcp/udp_transport.h"

namespace lm::session {

enum class TransportKind : std::uint8_t { can, udp, serial };

/// How the ECU is reached, in the terms of its user.
struct EcuAddress {
    TransportKind kind = TransportKind::udp;
    std::string name;            ///< "can:INTERFACE", "udp:HOST:PORT" or "serial:PORT"
    std::uint32_t baudrate = 0;  ///< bit/s of a serial line
    std::uint32_t cmdId = 0;     ///< on CAN, in A2L notation
    std::uint32_t resId = 0;     ///< likewise

    /// What stands behind the medium in the name.
    std::string_view place() const { return std::string_view(name).substr(name.find(':') + 1); }
};

struct TransportSetup {
    EcuAddress address;
    std::unique_ptr<CanAccess> can;  ///< on CAN; outlives the transport
    std::unique_ptr<xcp::ITransport> transport;
    const xcp::UdpTransport* udp = nullptr;  ///< the transport on UDP, for its statistics
    xcp::SerialTransport* serial = nullptr;  ///< the transport on a serial line, for its text
};

/// CAN when an interface is configured, else UDP when a host is, else the serial line when a port is. Errors:
/// "neither a CAN interface, a serial port nor a UDP host is configured", unsupported "XCP on TCP/IP is not
/// supported yet (use UDP)", those of CanAccess::obtain.
Result<TransportSetup> chooseTransport(const SessionConfig& config, const a2l::XcpInterface& interface,
                                       ChannelPool& pool);

}  // namespace lm::session
