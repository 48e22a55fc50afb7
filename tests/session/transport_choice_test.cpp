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
        {"can0", "ecu", {}, {}, false, "XCP on CAN is not available yet (use --udp or --serial)"},
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

TEST(TransportChoice, TakesTheBaudRateOfTheConfigurationThenOfTheA2l) {
    const struct {
        std::optional<std::uint32_t> configured;
        std::optional<std::uint32_t> described;
        std::uint32_t expected;
    } rows[] = {{9600, 57600, 9600}, {{}, 57600, 57600}, {{}, {}, 115200}};
    for (const auto& row : rows) {
        SessionConfig config;
        config.serial = {"/dev/by-id/a:b", row.configured, {}};
        a2l::XcpInterface interface;
        if (row.described) interface.serial = a2l::XcpOnSerial{row.described};
        const auto setup = chooseTransport(config, interface);
        ASSERT_TRUE(setup.ok());
        EXPECT_EQ(setup.value().name, "serial:/dev/by-id/a:b");
        EXPECT_EQ(setup.value().baudrate, row.expected);
    }
}

}  // namespace
}  // namespace lm::session
