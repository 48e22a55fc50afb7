#include "xcp/can_transport.h"

#include <gtest/gtest.h>

#include "broker/fake_channel.h"
#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::hexText;

struct Bus {
    broker::test::FakeChannel channel;
    broker::ChannelBroker broker{channel};
};

TEST(CanTransport, OneFrameCarriesOnePacket) {
    CanTransportConfig classic{.cmdId = {0x7E0, false}};
    CanTransportConfig padded = classic;
    padded.maxDlcRequired = true;
    padded.fillByte = 0xAA;
    const CanTransportConfig fd{.cmdId = {0x7E0, true}, .fd = true, .maxDlc = 16, .fillByte = 0x55};
    CanTransportConfig switched = fd;
    switched.brs = switched.maxDlcRequired = true;
    CanTransportConfig noFd = classic;
    noFd.brs = true;
    const std::string tooLong = "XCP packet does not fit into a CAN frame";
    const struct {
        CanTransportConfig config;
        std::size_t length;
        std::string sent;
    } rows[] = {
        {classic, 0, tooLong},
        {classic, 3, "7E0#000102"},
        {classic, 9, tooLong},
        {noFd, 1, "7E0#00"},
        {padded, 3, "7E0#000102AAAAAAAAAA"},
        {padded, 8, "7E0#0001020304050607"},
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
        EXPECT_EQ(sent ? bus.channel.sent.at(0) : sent.error().message, row.sent);
    }
    Bus bus;
    const std::uint8_t byte = 0;
    EXPECT_EQ(CanTransport({.cmdId = {0x666}}, bus.broker).send(&byte, 1).error().message, "send on fake");
}

TEST(CanTransport, TakesTheLengthsThatFramesHave) {
    Bus bus;
    std::string classic;
    std::string fd;
    for (unsigned length = 0; length < 256; ++length) {
        const auto maxDlc = static_cast<std::uint8_t>(length);
        const auto name = std::to_string(length) + " ";
        if (CanTransport({.maxDlc = maxDlc}, bus.broker).open()) classic += name;
        if (CanTransport({.fd = true, .maxDlc = maxDlc}, bus.broker).open()) fd += name;
    }
    EXPECT_EQ(classic, "8 ");
    EXPECT_EQ(fd, "8 12 16 20 24 32 48 64 ");
    EXPECT_EQ(CanTransport({.maxDlc = 12}, bus.broker).open().error().message, "invalid XCP on CAN MAX_DLC");
}

class Sink final : public IPacketSink {
  public:
    std::string log;

    void onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) override {
        EXPECT_EQ(time.hostNs, 1);
        EXPECT_EQ(time.hardwareNs, 2);
        log += "[" + hexText(data, length) + "]";
    }
    void onTransportEvent(const hal::CanChannelEvent& event) override {
        log += "event " + std::to_string(event.value);
    }
};

TEST(CanTransport, HearsItsOwnIdentifiersWhileItIsOpen) {
    Bus bus;
    Sink sink;
    const std::vector<std::string> frames = {"7E1#0102030405060708", "000007E1#09", "7E2#0A",
                                             "1ABCDEF0##00B",        "7E1#",        "7E1#R8"};
    {
        CanTransport transport({.resId = CanId::fromA2l(0x7E1), .extraIds = {CanId::fromA2l(0x9ABCDEF0)}},
                               bus.broker);
        transport.setSink(&sink);
        bus.channel.receive(frames);
        EXPECT_EQ(sink.log, "");
        for (int i = 0; i < 2; ++i)
            ASSERT_TRUE(transport.open());  // the second changes nothing
        bus.channel.receive(frames);
        bus.channel.sink->onChannelEvent({.value = 7});
        EXPECT_EQ(sink.log, "[01 02 03 04 05 06 07 08][0B]event 7");
        transport.close();
        transport.close();
        bus.channel.receive(frames);
        ASSERT_TRUE(transport.open());
        bus.channel.receive({"7E1#0C"});
    }
    bus.channel.receive({"7E1#0D"});
    EXPECT_EQ(sink.log, "[01 02 03 04 05 06 07 08][0B]event 7[0C]");
}

}  // namespace
}  // namespace lm::xcp
