// Datagrams into the receive path of XCP on UDP, through a socket as in life. What comes out is compared with
// a second, plain reading of the datagrams.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <semaphore>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "xcp/udp_transport.h"

namespace lm::fuzz {
namespace {

struct Seen final : xcp::IPacketSink {
    void onPacket(const std::uint8_t* data, std::size_t length, xcp::ReceiveTime time) override {
        require(length > 0 && time.hostNs > 0, "a packet has contents and a time");
        Bytes packet(data, data + length);
        if (packet == kEnd) return ended.release();
        const std::lock_guard lock(mutex);
        packets.push_back(std::move(packet));
    }
    void onTransportEvent(const xcp::TransportEvent&) override { require(false, "the socket works"); }

    /// What came since the last call, once the packet kEnd is there.
    std::vector<Bytes> take() {
        ended.acquire();
        const std::lock_guard lock(mutex);
        return std::exchange(packets, {});
    }

    static inline const Bytes kEnd = {'e', 'n', 'd', 0, 'o', 'f', 'r', 'u', 'n'};
    std::mutex mutex;
    std::vector<Bytes> packets;
    std::binary_semaphore ended{0};
};

/// A transport and the socket that it talks to, for all runs.
struct Line {
    Seen seen;
    std::unique_ptr<xcp::UdpTransport> transport;
    int socket = -1;

    Line() {
        socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        require(::bind(socket, generic, length) == 0 && ::getsockname(socket, generic, &length) == 0,
                "a port");
        transport = std::make_unique<xcp::UdpTransport>(
            xcp::UdpTransportConfig{.host = "127.0.0.1", .port = ntohs(address.sin_port)});
        transport->setSink(&seen);
        require(transport->open().ok(), "the transport opens");
        const std::uint8_t hello = 0;
        require(transport->send(&hello, 1).ok(), "the transport sends");
        std::array<std::uint8_t, 8> from{};
        length = sizeof address;
        require(::recvfrom(socket, from.data(), from.size(), 0, generic, &length) == 5, "the packet comes");
        require(::connect(socket, generic, length) == 0, "the way back");
    }
    ~Line() { ::close(socket); }

    void send(std::span<const std::uint8_t> datagram) const {
        require(::send(socket, datagram.data(), datagram.size(), 0) == static_cast<ssize_t>(datagram.size()),
                "the datagram leaves");
    }
};

/// The packets of a datagram; false when something is left over.
bool splitPlainly(std::span<const std::uint8_t> datagram, std::vector<Bytes>& packets) {
    while (datagram.size() >= 4) {
        const std::size_t length = datagram[0] + 256U * datagram[1];
        if (length == 0 || 4 + length > datagram.size()) return false;
        const auto packet = datagram.subspan(4, length);
        packets.emplace_back(packet.begin(), packet.end());
        datagram = datagram.subspan(4 + length);
    }
    return datagram.empty();
}

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    static fuzz::Line line;
    const xcp::UdpStatistics before = line.transport->statistics();
    // Few enough for any receive buffer.
    std::vector<std::span<const std::uint8_t>> datagrams;
    for (fuzz::Input input(data, size); !input.empty() && datagrams.size() < 64;)
        datagrams.push_back(input.takeBytes(input.takeBelow(512)));
    std::vector<fuzz::Bytes> expected;
    std::uint64_t malformed = 0;
    for (const auto datagram : datagrams)
        malformed += fuzz::splitPlainly(datagram, expected) ? 0U : 1U;
    const fuzz::Bytes& end = fuzz::Seen::kEnd;
    if (std::find(expected.begin(), expected.end(), end) != expected.end()) return 0;
    for (const auto datagram : datagrams)
        line.send(datagram);
    fuzz::Bytes last = {static_cast<std::uint8_t>(end.size()), 0, 0, 0};
    last.insert(last.end(), end.begin(), end.end());
    line.send(last);
    fuzz::require(line.seen.take() == expected, "the packets of the datagrams");
    const xcp::UdpStatistics after = line.transport->statistics();
    fuzz::require(after.kernelDrops == before.kernelDrops, "the buffer was large enough");
    fuzz::require(after.datagrams - before.datagrams == datagrams.size() + 1, "every datagram counts");
    fuzz::require(after.packets - before.packets == expected.size() + 1, "every packet counts");
    fuzz::require(after.malformedDatagrams - before.malformedDatagrams == malformed, "malformed ones count");
    fuzz::require(after.counterGaps - before.counterGaps <= expected.size() + 1, "at most one gap a packet");
    return 0;
}
