#include "xcp/can_transport.h"

#include <gtest/gtest.h>

#include "broker/fake_can.h"

namespace lm::xcp {
namespace {

struct Bus : broker::test::FakeCan {
    std::unique_ptr<hal::ICanChannel> channel = openChannel({}).value();
    broker::ChannelBroker broker{*channel};
};

TEST(CanTransport, OneFrameCarriesOnePacket) {
    const std::string tooLong = "XCP packet does not fit into a CAN frame";
    const CanTransportConfig classic{.cmdId = {0x7E0, false}};
    const CanTransportConfig padded{
        .cmdId = {0x7E0, false}, .maxDlcRequired = true, .brs = true, .fillByte = 0xAA};
    const CanTransportConfig fd{.cmdId = {0x7E0, true}, .fd = true, .maxDlc = 16, .fillByte = 0x55};
    CanTransportConfig switched = fd;
    switched.brs = switched.maxDlcRequired = true;
    const struct {
        CanTransportConfig config;
        std::size_t length;
        std::string sent;
    } rows[] = {
        {classic, 0, tooLong},
        {classic, 3, "7E0#000102"},
        {classic, 9, tooLong},
        {padded, 3, "7E0#000102AAAAAAAAAA"},
        {fd, 3, "000007E0##0000102"},
        {fd, 9, "000007E0##0000102030405060708555555"},
        {fd, 17, tooLong},
        {switched, 9, "000007E0##100010203040506070855555555555555"},
    };
    for (const auto& row : rows) {
        Bus bus;
        CanTransport transport(row.config, bus.broker);
        ASSERT_TRUE(transport.open());
        std::vector<std::uint8_t> packet(row.length);
        for (std::size_t i = 0; i < packet.size(); ++i)
            packet[i] = static_cast<std::uint8_t>(i);
        const auto sent = transport.send(packet.data(), packet.size());
        EXPECT_EQ(sent ? bus.sent.at(0) : sent.error().message, row.sent);
    }
    Bus bus;
    bus.gone = true;
    const std::uint8_t byte = 0;
    EXPECT_EQ(CanTransport(classic, bus.broker).send(&byte, 1).error().message, "gone");
}

TEST(CanTransport, TakesTheLengthsThatFramesHave) {
    Bus bus;
    const auto taken = [&](bool fd) {
        std::string lengths;
        for (unsigned length = 0; length < 256; ++length) {
            const auto maxDlc = static_cast<std::uint8_t>(length);
            const auto opened = CanTransport({.fd = fd, .maxDlc = maxDlc}, bus.broker).open();
            if (opened) lengths += std::to_string(length) + " ";
            EXPECT_TRUE(opened || opened.error().message == "invalid XCP on CAN MAX_DLC");
        }
        return lengths;
    };
    EXPECT_EQ(taken(false), "8 ");
    EXPECT_EQ(taken(true), "8 12 16 20 24 32 48 64 ");
}

}  // namespace
}  // namespace lm::xcp
