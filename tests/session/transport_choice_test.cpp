#include "session/transport_choice.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "session/fake_can.h"

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
        {"can0", "ecu", {}, {}, false, "CAN-IDs for XCP are neither configured nor in the A2L"},
        {"", "", {}, {}, false, "neither a CAN interface, a serial port nor a UDP host is configured"},
    };
    test::FakeCan bus;
    ChannelPool pool(bus);
    for (const auto& row : rows) {
        SessionConfig config;
        config.can.interface = row.interface;
        config.udp = {row.host, row.port};
        a2l::XcpInterface interface;
        if (row.a2lPort) interface.udp = a2l::XcpOnUdp{row.a2lPort, ""};
        interface.tcp = row.tcpOnly;
        const auto setup = chooseTransport(config, interface, pool);
        EXPECT_EQ(setup.ok() ? setup.value().address.name : setup.error().text(), row.outcome);
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
        const auto setup = chooseTransport(config, interface, ChannelPool::ofThisMachine());
        ASSERT_TRUE(setup.ok());
        EXPECT_EQ(setup.value().address.name, "serial:/dev/by-id/a:b");
        EXPECT_EQ(setup.value().address.baudrate, row.expected);
    }
}

std::string told(const TransportSetup& setup, const hal::CanChannelConfig& opened) {
    const xcp::CanTransportConfig& sent = setup.can->transportConfig();
    const CanTiming timing = setup.can->timing();
    std::string text = fmt::format("cmd {:X} res {:X}", setup.address.cmdId, setup.address.resId);
    for (const xcp::CanId& id : sent.extraIds)
        text += fmt::format(" and {:X}{}", id.id, id.extended ? "x" : "");
    return fmt::format("{}{}{}{}, {} bytes, sets {}/{}, load at {}/{}{}", text, sent.fd ? " fd" : "",
                       sent.brs ? " brs" : "", sent.maxDlcRequired ? " padded" : "", sent.maxDlc,
                       opened.bitrate ? opened.bitrate->bitrate : 0,
                       opened.dataBitrate ? opened.dataBitrate->bitrate : 0, timing.bitrate,
                       timing.dataBitrate, timing.extendedIds ? " extended" : "");
}

TEST(TransportChoice, CanTakesTheConfigurationThenTheInterfaceThenTheA2l) {
    using Can = SessionConfig::Can;
    const a2l::XcpOnCan described{0x600, 0x80000601, {}, 250'000, false, true, 1'000'000, 32, {0x601, 0x601}};
    a2l::XcpOnCan padded = described;
    padded.maxDlcRequired = true;
    padded.maxDlc.reset();
    padded.dataBaudrate.reset();
    padded.daqListIds = {0x80000601, 0x800};
    const struct {
        Can config;
        std::optional<a2l::XcpOnCan> interface;
        std::uint32_t currentBitrate;
        const char* outcome;
    } rows[] = {
        {{"can0", {}, {}, false, 0x7E0, 0x7E8, false},
         {},
         0,
         "cmd 7E0 res 7E8, 8 bytes, sets 0/0, load at 0/0"},
        {{"can0", {}, {}, false, 0x7E0, 0x7E8, false},
         described,
         500'000,
         "cmd 7E0 res 7E8 and 601, 8 bytes, sets 0/0, load at 500000/0"},
        {{"can0", {}, {}, true, {}, {}, true},
         described,
         0,
         "cmd 600 res 80000601 and 601 fd brs padded, 32 bytes, sets 0/0, load at 250000/1000000 extended"},
        {{"can0", 800'000, 4'000'000, true, {}, 0x7E8, false},
         described,
         500'000,
         "cmd 600 res 7E8 and 601 fd brs, 32 bytes, sets 800000/4000000, load at 800000/4000000"},
        {{"can0", {}, {}, true, {}, {}, false},
         padded,
         500'000,
         "cmd 600 res 80000601 fd brs padded, 64 bytes, sets 0/0, load at 500000/500000 extended"},
        {{"can0", {}, {}, false, 0x7E0, {}, false},
         {},
         0,
         "CAN-IDs for XCP are neither configured nor in the A2L"},
        {{"can0", {}, {}, false, 0x800, 0x7E8, false},
         {},
         0,
         "CAN-ID 0x800: CAN identifier out of range (a 29-bit identifier has bit 31 set: 0x80000800)"},
        {{"can0", {}, {}, false, 0x7E0, 0xA0000000, false},
         {},
         0,
         "CAN-ID 0xA0000000: CAN identifier out of range"},
    };
    for (const auto& row : rows) {
        test::FakeCan bus;
        bus.link.bitTiming.bitrate = row.currentBitrate;
        ChannelPool pool(bus);
        SessionConfig config;
        config.can = row.config;
        a2l::XcpInterface interface;
        interface.can = row.interface;
        const auto setup = chooseTransport(config, interface, pool);
        EXPECT_EQ(setup.ok() ? told(setup.value(), bus.config) : setup.error().text(), row.outcome);
    }
}

}  // namespace
}  // namespace lm::session
