#include "xcp/udp_transport.h"

#include <arpa/inet.h>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bytes;
using test::hex;
using test::hexText;

/// A slave's socket on a port that the system chose, and a transport to it whose packets are noted down.
class UdpTransportTest : public ::testing::Test, public IPacketSink {
  protected:
    UdpTransportTest() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* const general = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(socket_, general, length), 0);
        EXPECT_EQ(::getsockname(socket_, general, &length), 0);
        transport_.emplace(
            UdpTransportConfig{.host = "127.0.0.1", .port = ntohs(address.sin_port), .maxPacketSize = 4});
        transport_->setSink(this);
    }
    ~UdpTransportTest() override {
        transport_.reset();
        ::close(socket_);
    }

    /// The error's text, empty on success.
    std::string send(const std::string& packet) {
        const Bytes bytes = hex(packet);
        const auto sent = transport_->send(bytes.data(), bytes.size());
        return sent ? "" : sent.error().message;
    }
    /// Receives one datagram at the slave and answers its sender from then on.
    std::string receive() {
        Bytes buffer(100);
        socklen_t length = sizeof master_;
        const ssize_t size = ::recvfrom(socket_, buffer.data(), buffer.size(), 0,
                                        reinterpret_cast<sockaddr*>(&master_), &length);
        return size < 0 ? std::strerror(errno) : hexText(buffer.data(), static_cast<std::size_t>(size));
    }
    void answer(const std::string& datagram) {
        const Bytes bytes = hex(datagram);
        EXPECT_EQ(::sendto(socket_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&master_),
                           sizeof master_),
                  static_cast<ssize_t>(bytes.size()));
    }

    void onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) override {
        const std::lock_guard lock(mutex_);
        EXPECT_GT(time.hostNs, 0);
        log_ += "[" + hexText(data, length) + "]";
        changed_.notify_all();
    }
    void onTransportEvent(const TransportEvent&) override { ADD_FAILURE(); }
    /// Waits for a packet whose text is `last` and returns all packets so far.
    std::string upTo(const std::string& last) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return log_.find("[" + last + "]") != std::string::npos; });
        return log_;
    }

    const int socket_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in master_{};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string log_;
    std::optional<UdpTransport> transport_;
};

TEST_F(UdpTransportTest, ExchangesPacketsAndCountsDamage) {
    EXPECT_EQ(UdpTransport({.host = ""}).open().error().message, "XCP on UDP: no host configured");
    EXPECT_EQ(send("FF 00"), "XCP on UDP: transport not started");
    ASSERT_TRUE(transport_->open());
    ASSERT_TRUE(transport_->open());
    EXPECT_EQ(send(""), "XCP packet too large for the transport");
    EXPECT_EQ(send("01 02 03 04 05"), "XCP packet too large for the transport");
    EXPECT_EQ(send("FF 00"), "");
    EXPECT_EQ(receive(), "02 00 00 00 FF 00");
    EXPECT_EQ(send("01 02 03 04"), "");
    EXPECT_EQ(receive(), "04 00 01 00 01 02 03 04");

    answer("01 00 FE FF A1 02 00 FF FF A2 A3");  // two packets, counters 65534 and 65535
    answer("01 00 00 00 B1 05 00 01 00 B2");     // the second announces more than there is
    answer("01 00 01 00 C1 00 00");              // bytes left over
    answer("00 00 02 00 D1");                    // LEN 0
    answer("01 00 05 00 E1");                    // counters 2 to 4 are missing
    answer("01 00 00 90 E2");                    // more than half the range ahead
    answer("01 00 00 00 E3");                    // begun anew
    answer("01 00 03 00 E4");
    answer("01 00 01 00 E5");  // late, not missing
    answer("01 00 01 00 E5");  // doubled
    answer("01 00 04 00 E6");
    answer("01 00 00 00 E7");  // begun anew already
    answer("01 00 02 00 F1");
    EXPECT_EQ(upTo("F1"), "[A1][A2 A3][B1][C1][E1][E2][E3][E4][E5][E5][E6][E7][F1]");
    const UdpStatistics before = transport_->statistics();
    EXPECT_EQ(before.counterGaps, 9U);
    EXPECT_EQ(before.missingPackets, 3U + 1U + 1U);
    EXPECT_EQ(before.malformedDatagrams, 3U);
    EXPECT_EQ(before.kernelDrops, 0U);
}

TEST_F(UdpTransportTest, ARefusedDatagramFailsNoLaterOne) {
    ASSERT_TRUE(transport_->open());
    EXPECT_EQ(send("FF 00"), "");
    receive();
    // Datagrams to the port are refused while it stays ours: the socket hears one other port only.
    master_.sin_port = htons(9);
    ASSERT_EQ(::connect(socket_, reinterpret_cast<const sockaddr*>(&master_), sizeof master_), 0);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(send("FF 00"), "");
}

// As after the host got another address, to which the old socket does not belong.
TEST_F(UdpTransportTest, OpensAnewAfterAFailedSend) {
    ASSERT_TRUE(transport_->open());
    EXPECT_EQ(send("FF 00"), "");
    receive();
    const in_port_t before = master_.sin_port;
    for (int descriptor = 0; descriptor < 100; ++descriptor) {
        sockaddr_in own{};
        socklen_t length = sizeof own;
        const bool isSocket = ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &length) == 0;
        if (isSocket && own.sin_port == before) ::shutdown(descriptor, SHUT_WR);
    }
    EXPECT_EQ(send("FF 00"), "XCP on UDP: send: Broken pipe");
    ASSERT_TRUE(transport_->open());
    EXPECT_EQ(send("FF 01"), "");
    EXPECT_EQ(receive(), "02 00 00 00 FF 01");
    answer("01 00 FE FF A1");
    EXPECT_EQ(upTo("A1"), "[A1]");
}

}  // namespace
}  // namespace lm::xcp
