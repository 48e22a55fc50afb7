#include "session/transport_choice.h"

#include <gtest/gtest.h>

namespace lm::session {
namespace {

TEST(TransportChoice, TakesTheFirstMediumThatIsConfigured) {
    const struct {
        const char* interface;
        const char* host;
        std::optional<std::uint16_t> port;
        std::optional<std::uint16_t> a2lPort;
        bool tcpOnly;
        const char* outcome;  // the transport's name or the message
    } rows[] = {
        {"", "ecu", 1234, 4321, false, "udp:ecu:1234"},
        {"", "ecu", {}, 4321, false, "udp:ecu:4321"},
        {"", "fe80::1", {}, {}, false, "udp:fe80::1:5555"},
        {"", "ecu", {}, {}, true, "XCP on TCP/IP is not supported yet (use UDP)"},
        {"can0", "ecu", {}, {}, false, "XCP on CAN is not available yet (use --udp HOST[:PORT])"},
        {"", "", {}, {}, false, "neither a CAN interface, a serial port nor a UDP host is configured"},
    };
    for (const auto& row : rows) {
        SessionConfig config;
        config.can.interface = row.interface;
        config.udp = {row.host, row.port};
        a2l::XcpInterface interface;
        if (row.a2lPort) interface.udp = a2l::XcpOnUdp{row.a2lPort, ""};
        interface.tcp = row.tcpOnly;
        const auto setup = chooseTransport(config, interface);
        EXPECT_EQ(setup.ok() ? setup.value().name : setup.error().text(), row.outcome);
    }
}

}  // namespace
}  // namespace lm::session
