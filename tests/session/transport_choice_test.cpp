#include "session/transport_choice.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "broker/fake_can.h"
#include "session/can_medium.h"
#include "support/log_capture.h"

namespace lm::session {
namespace {

std::string textsOf(const Result<std::unique_ptr<IMedium>>& medium) {
    if (!medium.ok()) return medium.error().text();
    const MediumTexts& texts = medium.value()->texts();
    return texts.name + "|" + texts.description + "|" + texts.source;
}

TEST(TransportChoice, TakesTheFirstMediumThatIsConfigured) {
    const struct {
        const char* host;
        std::optional<std::uint16_t> port;
        std::optional<std::uint16_t> a2lPort;
        bool tcpOnly;
        const char* outcome;  // the texts of the medium, or the message
    } rows[] = {
        {"ecu", 1234, 4321, false, "udp:ecu:1234|XCP on UDP/IP, ecu:1234|XCP on UDP ecu:1234"},
        {"ecu", {}, 4321, false, "udp:ecu:4321|XCP on UDP/IP, ecu:4321|XCP on UDP ecu:4321"},
        {"fe80::1", {}, {}, false, "udp:fe80::1:5555|XCP on UDP/IP, fe80::1:5555|XCP on UDP fe80::1:5555"},
        {"ecu", {}, {}, true, "XCP on TCP/IP is not supported yet (use UDP)"},
        {"", {}, {}, false, "neither a CAN interface, a serial port nor a UDP host is configured"},
    };
    for (const auto& row : rows) {
        SessionConfig config;
        config.udp = {row.host, row.port};
        a2l::XcpInterface interface;
        if (row.a2lPort) interface.udp = a2l::XcpOnUdp{{}, row.a2lPort, ""};
        interface.tcp = row.tcpOnly;
        EXPECT_EQ(textsOf(chooseTransport(config, interface, ChannelPool::ofThisMachine())), row.outcome);
    }
    using Rate = std::optional<std::uint32_t>;
    for (const auto& [configured, described, taken] :
         {std::tuple<Rate, Rate, std::uint32_t>{9600, 57600, 9600}, {{}, 57600, 57600}, {{}, {}, 115200}}) {
        SessionConfig config;
        config.serial = {"/dev/by-id/a:b", configured, {}};
        a2l::XcpInterface interface;
        interface.serial = a2l::XcpOnSerial{{}, described};
        EXPECT_EQ(textsOf(chooseTransport(config, interface, ChannelPool::ofThisMachine())),
                  fmt::format("serial:/dev/by-id/a:b|XCP on serial, /dev/by-id/a:b, {} baud|"
                              "XCP on serial /dev/by-id/a:b",
                              taken));
    }
}

std::string told(const CanMedium& medium) {
    const xcp::CanTransportConfig& sent = medium.transportConfig();
    const hal::CanChannelConfig& opened = medium.channel().config();
    const CanTiming timing = medium.timing();
    const std::string hint = medium.silenceHint();
    return fmt::format("{} +{}{}{}{} {} bytes, {}/{} set, load at {}/{}{}{}", medium.texts().description,
                       sent.extraIds.size(), opened.fd && sent.fd ? " fd" : "", sent.brs ? " brs" : "",
                       sent.maxDlcRequired ? " padded" : "", sent.maxDlc,
                       opened.bitrate.value_or(hal::CanBitTiming{}).bitrate,
                       opened.dataBitrate.value_or(hal::CanBitTiming{}).bitrate, timing.bitrate,
                       timing.dataBitrate, timing.extendedIds ? " extended" : "",
                       hint.substr(0, hint.find(',')));
}

void expectCan(const SessionConfig::Can& can, const std::optional<a2l::XcpOnCan>& described,
               std::uint32_t currentBitrate, const char* outcome) {
    broker::test::FakeCan bus;
    bus.interface.bitTiming.bitrate = currentBitrate;
    ChannelPool pool(bus);
    SessionConfig config;
    config.can = can;
    config.udp.host = "ecu";  // CAN comes first
    a2l::XcpInterface interface;
    interface.can = described;
    const auto medium = chooseTransport(config, interface, pool);
    EXPECT_EQ(medium.ok() ? told(dynamic_cast<CanMedium&>(*medium.value())) : medium.error().text(), outcome);
}

TEST(TransportChoice, CanTakesTheConfigurationThenTheInterfaceThenTheA2l) {
    const a2l::XcpOnCan full{{},    0x600, 0x80000601, {}, 250'000,
                             false, true,  1'000'000,  32, {{0, 0x601}, {1, 0x601}}};
    const a2l::XcpOnCan bare{{},   0x600, 0x80000601, {}, {},
                             true, true,  {},         {}, {{0, 0x80000601}, {1, 0x800}}};
    const SessionConfig::Can plain{"can0", {}, {}, false, 0x7E0, 0x7E8, false};
    expectCan(plain, {}, 0,
              "CMD 0x7E0, RES 0x7E8 on can0 +0 8 bytes, 0/0 set, load at 0/0DTOs were expected with the "
              "identifier 0x7E8 only");
    expectCan(plain, full, 500'000, "CMD 0x7E0, RES 0x7E8 on can0 +1 8 bytes, 0/0 set, load at 500000/0");
    expectCan({"can0", {}, {}, true, {}, {}, true}, full, 0,
              "CMD 0x600, RES 0x80000601 on can0 +1 fd brs padded 32 bytes, 0/0 set, load at 250000/1000000 "
              "extended");
    expectCan({"can0", 800'000, 4'000'000, true, {}, 0x7E8, false}, full, 500'000,
              "CMD 0x600, RES 0x7E8 on can0 +1 fd brs 32 bytes, 800000/4000000 set, load at 800000/4000000");
    expectCan({"can0", {}, {}, true, {}, {}, false}, bare, 500'000,
              "CMD 0x600, RES 0x80000601 on can0 +0 fd brs padded 64 bytes, 0/0 set, load at 500000/500000 "
              "extended");
    expectCan({"can0", {}, {}, false, 0x7E0, {}, false}, {}, 0,
              "CAN-IDs for XCP are neither configured nor in the A2L");
    expectCan({"can0", {}, {}, false, 0x800, 0x7E8, false}, {}, 0,
              "CAN-ID 0x800: CAN identifier out of range (a 29-bit identifier has bit 31 set: 0x80000800)");
    expectCan({"can0", {}, {}, false, 0x7E0, 0xA0000000, false}, {}, 0,
              "CAN-ID 0xA0000000: CAN identifier out of range");
}

void expectSecond(std::optional<std::uint32_t> firstRate, bool secondFd, std::uint32_t secondRate,
                  std::uint32_t secondDataRate, const char* outcome) {
    broker::test::FakeCan bus;
    ChannelPool pool(bus);
    SessionConfig config;
    config.can = {"can0", firstRate, 2'000'000, true, 0x600, 0x601, false};
    const auto first = chooseTransport(config, {}, pool);
    config.can = {"can0", secondRate, secondDataRate, secondFd, 0x700, 0x701, false};
    const auto second = chooseTransport(config, {}, pool);
    EXPECT_EQ(second.ok() ? "" : second.error().text(), outcome);
    EXPECT_EQ(bus.opened, 1U);
}

TEST(TransportChoice, EcusOnOneChannelMustAgree) {
    {
        const lm::test::LogCapture log;
        expectSecond({}, true, 500'000, 2'000'000, "");
        EXPECT_TRUE(log.text().starts_with("warning can0: can.dataBitrate alone only counts ")) << log.text();
    }
    expectSecond(500'000, true, 500'000, 2'000'000, "");
    expectSecond(500'000, true, 250'000, 2'000'000,
                 "can0: bitrate 250000 conflicts with 500000 of another ECU on this channel");
    expectSecond(500'000, true, 500'000, 4'000'000,
                 "can0: data bitrate 4000000 conflicts with 2000000 of another ECU on this channel");
    expectSecond(500'000, false, 250'000, 2'000'000,
                 "can0: CAN FD setting differs from another ECU on this channel");
}

}  // namespace
}  // namespace lm::session
