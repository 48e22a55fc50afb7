// Which medium reaches the ECU, from the configuration and the A2L's XCP interface data.
//
// Threads: a pure function; nothing is opened. Lifetime: the setup owns its transport.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "a2l/xcp_interface.h"
#include "core/result.h"
#include "session/session_config.h"
#include "xcp/serial_transport.h"
#include "xcp/transport.h"
#include "xcp/udp_transport.h"

namespace lm::session {

enum class TransportKind : std::uint8_t { can, udp, serial };

struct TransportSetup {
    TransportKind kind = TransportKind::udp;
    std::string name;            ///< "udp:HOST:PORT" or "serial:PORT"
    std::uint32_t baudrate = 0;  ///< bit/s of a serial line
    std::unique_ptr<xcp::ITransport> transport;
    const xcp::UdpTransport* udp = nullptr;  ///< the transport when kind is udp, for its statistics
    xcp::SerialTransport* serial = nullptr;  ///< the transport when kind is serial, for its text
};

/// CAN when an interface is configured, else UDP when a host is, else the serial line when a port is. Errors:
/// "neither a CAN interface, a serial port nor a UDP host is configured", unsupported "XCP on TCP/IP is not
/// supported yet (use UDP)" and "XCP on CAN is not available yet (use --udp or --serial)".
Result<TransportSetup> chooseTransport(const SessionConfig& config, const a2l::XcpInterface& interface);

}  // namespace lm::session
