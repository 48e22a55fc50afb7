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

/// A socket of the slave on a port that the system chose.
class Peer {
  public:
    explicit Peer(int family) : socket_(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_storage address{};
        address.ss_family = static_cast<sa_family_t>(family);
        socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        if (family == AF_INET6) {
            reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr = IN6ADDR_LOOPBACK_INIT;
        } else {
            reinterpret_cast<sockaddr_in*>(&address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        }
        usable_ = socket_ >= 0 && ::bind(socket_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                  ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        // The port has the same place in both kinds of address.
        port_ = ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    }
    ~Peer() { ::close(socket_); }

    /// From now on datagrams to the port are refused, while it stays ours: the socket hears one other port
    /// only.
    void refuse() {
        sockaddr_in other{};
        other.sin_family = AF_INET;
        other.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        other.sin_port = htons(9);
        ASSERT_EQ(::connect(socket_, reinterpret_cast<sockaddr*>(&other), sizeof other), 0);
    }
    bool usable() const { return usable_; }
    std::uint16_t port() const { return port_; }

    /// Receives one datagram and answers its sender from then on.
    std::string receive() {
        Bytes buffer(70'000);
        length_ = sizeof master_;
        const ssize_t size = ::recvfrom(socket_, buffer.data(), buffer.size(), 0,
                                        reinterpret_cast<sockaddr*>(&master_), &length_);
        return size < 0 ? std::strerror(errno) : hexText(buffer.data(), static_cast<std::size_t>(size));
    }
    void send(const std::string& datagram) {
        const Bytes bytes = hex(datagram);
        ASSERT_EQ(
            ::sendto(socket_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&master_), length_),
            static_cast<ssize_t>(bytes.size()));
    }

  private:
    int socket_;
    bool usable_ = false;
    std::uint16_t port_ = 0;
    sockaddr_storage master_{};
    socklen_t length_ = 0;
};

class Packets final : public IPacketSink {
  public:
    void onPacket(const std::uint8_t* data, std::size_t length, ReceiveTime time) override {
        const std::lock_guard lock(mutex_);
        EXPECT_GT(time.hostNs, 0);
        EXPECT_EQ(time.hardwareNs, 0);
        log_ += "[" + hexText(data, length) + "]";
        changed_.notify_all();
    }
    void onTransportEvent(const hal::CanChannelEvent&) override { ADD_FAILURE(); }

    /// Waits for a packet whose text is `last` and returns all packets so far.
    std::string upTo(const std::string& last) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return log_.find("[" + last + "]") != std::string::npos; });
        return log_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string log_;
};

Bytes connectPacket() {
    return hex("FF 00");
}

TEST(UdpTransport, ExchangesPacketsOverBothAddressFamilies) {
    const std::pair<int, const char*> families[] = {{AF_INET, "127.0.0.1"}, {AF_INET6, "::1"}};
    for (const auto& family : families) {
        Peer peer(family.first);
        if (!peer.usable()) continue;  // a machine without IPv6
        Packets packets;
        UdpTransport transport({.host = family.second, .port = peer.port()});
        transport.setSink(&packets);
        const Bytes packet = connectPacket();
        EXPECT_EQ(transport.send(packet.data(), packet.size()).error().message,
                  "XCP on UDP: transport not started");
        ASSERT_TRUE(transport.open());
        ASSERT_TRUE(transport.open());
        ASSERT_TRUE(transport.send(packet.data(), packet.size()));
        EXPECT_EQ(peer.receive(), "02 00 00 00 FF 00");
        ASSERT_TRUE(transport.send(packet.data(), packet.size()));
        EXPECT_EQ(peer.receive(), "02 00 01 00 FF 00");

        peer.send("01 00 FE FF A1 02 00 FF FF A2 A3");  // two packets, counters 65534 and 65535
        peer.send("01 00 00 00 B1 05 00 01 00 B2");     // the second announces more than there is
        peer.send("01 00 01 00 C1 00 00");              // bytes left over
        peer.send("00 00 02 00 D1");                    // LEN 0
        peer.send("01 00 05 00 E1");                    // counters 2 to 4 are missing
        peer.send("01 00 00 90 E2");                    // more than half the range ahead
        peer.send("01 00 00 00 E3");                    // begun anew
        peer.send("01 00 03 00 E4");
        peer.send("01 00 01 00 F1");  // a step back
        EXPECT_EQ(packets.upTo("F1"), "[A1][A2 A3][B1][C1][E1][E2][E3][E4][F1]");
        transport.close();
        transport.close();
        const UdpStatistics statistics = transport.statistics();
        EXPECT_EQ(statistics.datagrams, 9U);
        EXPECT_EQ(statistics.packets, 9U);
        EXPECT_EQ(statistics.malformedDatagrams, 3U);
        EXPECT_EQ(statistics.counterGaps, 5U);
        EXPECT_EQ(statistics.missingPackets, 5U);
        EXPECT_EQ(statistics.kernelDrops, 0U);
    }
}

TEST(UdpTransport, SplitsDatagramsDamagedAnywhere) {
    const std::string whole = "01 00 00 00 A1 02 00 01 00 A2 A3";
    Peer peer(AF_INET);
    Packets packets;
    UdpTransport transport({.host = "127.0.0.1", .port = peer.port()});
    transport.setSink(&packets);
    ASSERT_TRUE(transport.open());
    const Bytes packet = connectPacket();
    ASSERT_TRUE(transport.send(packet.data(), packet.size()));
    peer.receive();
    std::uint64_t malformed = 0;
    std::uint64_t delivered = 0;
    for (std::size_t length = 0; length <= 11; ++length) {
        peer.send(whole.substr(0, length * 3));
        delivered += length == 11 ? 2 : (length >= 5 ? 1 : 0);
        malformed += length == 0 || length == 5 || length == 11 ? 0 : 1;
    }
    packets.upTo("A2 A3");
    transport.close();
    EXPECT_EQ(transport.statistics().malformedDatagrams, malformed);
    EXPECT_EQ(transport.statistics().packets, delivered);
    EXPECT_EQ(transport.statistics().datagrams, 12U);
}

TEST(UdpTransport, RefusesWhatCannotBeOpenedOrSent) {
    UdpTransport nowhere({.host = ""});
    EXPECT_EQ(nowhere.open().error().message, "XCP on UDP: no host configured");
    UdpTransport unknown({.host = "no such host"});
    const auto opened = unknown.open();
    EXPECT_EQ(opened.error().message.rfind("XCP on UDP: cannot resolve no such host: ", 0), 0U);
    unknown.close();

    Peer peer(AF_INET);
    UdpTransport transport({.host = "127.0.0.1", .port = peer.port(), .maxPacketSize = 4});
    ASSERT_TRUE(transport.open());
    const Bytes packet(5);
    for (const std::size_t length : {std::size_t{0}, std::size_t{5}}) {
        EXPECT_EQ(transport.send(packet.data(), length).error().message,
                  "XCP packet too large for the transport");
    }
    EXPECT_EQ(transport.maxPacketSize(), 4U);
}

TEST(UdpTransport, ARefusedDatagramFailsNoLaterOne) {
    Peer peer(AF_INET);
    peer.refuse();
    Packets packets;
    UdpTransport transport({.host = "127.0.0.1", .port = peer.port()});
    transport.setSink(&packets);
    ASSERT_TRUE(transport.open());
    const Bytes packet = connectPacket();
    for (int i = 0; i < 20; ++i) {
        const auto sent = transport.send(packet.data(), packet.size());
        EXPECT_TRUE(sent) << sent.error().message;
    }
    transport.close();
    ASSERT_TRUE(transport.open());  // and it can be opened again
    EXPECT_TRUE(transport.send(packet.data(), packet.size()));
}

}  // namespace
}  // namespace lm::xcp
