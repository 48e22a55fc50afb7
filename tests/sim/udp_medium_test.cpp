#include "sim/udp_medium.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "sim/sim_bench.h"

namespace lm::sim {
namespace {

/// A master's socket on the loopback address of a family.
class Client {
  public:
    Client(int family, std::uint16_t port) : socket_(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sockaddr_in6 v6{};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        v6.sin6_addr = in6addr_loopback;
        connected_ = family == AF_INET
                         ? ::connect(socket_, reinterpret_cast<const sockaddr*>(&v4), sizeof v4) == 0
                         : ::connect(socket_, reinterpret_cast<const sockaddr*>(&v6), sizeof v6) == 0;
    }
    ~Client() { ::close(socket_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void send(const std::string& hex) {
        const std::vector<std::uint8_t> bytes = bytesOf(hex);
        ASSERT_TRUE(connected_);
        ASSERT_EQ(::send(socket_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    /// The next datagram, empty when none is there (everything on this host arrives at once).
    std::string receive() {
        std::array<std::uint8_t, 2048> buffer{};
        const ssize_t size = ::recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        return size < 0 ? std::string() : hexOf({buffer.data(), static_cast<std::size_t>(size)});
    }

  private:
    int socket_;
    bool connected_ = false;
};

class UdpMediumTest : public testing::Test {
  protected:
    void open(const Options& options) {
        options_ = options;
        options_.port = 0;
        faults_ = FaultPlan::parse(options.faults).value();
        medium_ = UdpMedium::open(options_, faults_).value();
    }
    /// The packets that have come, in hexadecimal.
    Packets received() {
        Packets packets;
        for (const pollfd& fd : medium_->descriptors()) {
            EXPECT_TRUE(medium_->receive(fd.fd, [&](auto bytes) { packets.push_back(hexOf(bytes)); }).ok());
        }
        return packets;
    }
    void send(const Packets& packets) {
        Outbox out;
        for (const std::string& hex : packets) {
            const std::vector<std::uint8_t> bytes = bytesOf(hex);
            std::copy(bytes.begin(), bytes.end(), out.append(bytes.size(), bytes[0] < 0xFC).begin());
        }
        medium_->send(out, 0);
    }

    Options options_;
    FaultPlan faults_;
    std::unique_ptr<UdpMedium> medium_;
};

TEST_F(UdpMediumTest, TalksToWhoConnectedLastOnBothAddresses) {
    open({});
    Client first(AF_INET, medium_->port());
    send({"FF 01"});  // nobody there: dropped
    first.send("02 00 00 00 FF 00");
    first.send("01 00 01 00 FD 01 00 02 00 FC");  // two packets
    first.send("00 00 00 00");
    first.send("05 00 00 00 FD");
    EXPECT_EQ(received(), (Packets{"FF 00", "FD", "FC"}));
    send({"FF 01", "FE 00"});
    EXPECT_EQ(first.receive(), "02 00 00 00 FF 01");
    EXPECT_EQ(first.receive(), "02 00 01 00 FE 00");

    Client second(AF_INET6, medium_->port());
    second.send("01 00 00 00 FD");
    EXPECT_EQ(received(), Packets{}) << "no CONNECT yet";
    second.send("02 00 00 00 FF 00");
    EXPECT_EQ(received(), Packets{"FF 00"});
    first.send("01 00 00 00 FD");
    EXPECT_EQ(received(), Packets{}) << "superseded";
    send({"FF 02"});
    EXPECT_EQ(second.receive(), "02 00 02 00 FF 02");
    EXPECT_EQ(first.receive(), "");
}

TEST_F(UdpMediumTest, PacksDtosUntilTheDatagramIsFullOrAnAnswerLeaves) {
    Options options;
    options.pack = 2;
    open(options);
    Client client(AF_INET, medium_->port());
    client.send("02 00 00 00 FF 00");
    received();
    send({"00 11", "01 22", "02 33"});
    EXPECT_EQ(client.receive(), "02 00 00 00 00 11 02 00 01 00 01 22");
    EXPECT_EQ(client.receive(), "");
    EXPECT_EQ(medium_->dueNs(), 20'000'000);
    send({"FF"});
    EXPECT_EQ(client.receive(), "02 00 02 00 02 33 01 00 03 00 FF");
    send({"00 44"});
    EXPECT_TRUE(medium_->onDue(0).ok());
    EXPECT_EQ(client.receive(), "02 00 04 00 00 44");
    EXPECT_EQ(medium_->counters().packetsSent, 5U);
    EXPECT_EQ(medium_->counters().datagramsSent, 3U);
}

TEST_F(UdpMediumTest, DisturbsDatagramsOnOrder) {
    Options options;
    options.faults = {"lose-datagram:3", "ctr-gap:4", "malformed:3"};
    open(options);
    Client client(AF_INET, medium_->port());
    client.send("02 00 00 00 FF 00");
    received();
    send({"00 01", "00 02", "00 03", "00 04", "00 05"});
    EXPECT_EQ(client.receive(), "02 00 00 00 00 01");
    EXPECT_EQ(client.receive(), "02 00 01 00 00 02");
    EXPECT_EQ(client.receive(), "EA 03 04 00 00 04");  // number 2 is lost, 3 was never given
    EXPECT_EQ(client.receive(), "02 00 05 00 00 05");
    EXPECT_EQ(medium_->counters().packetsLost, 1U);
    EXPECT_EQ(medium_->counters().packetsMalformed, 1U);
}

}  // namespace
}  // namespace lm::sim
