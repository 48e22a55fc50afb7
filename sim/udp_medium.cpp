#include "sim/udp_medium.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <string>
#include <unistd.h>

#include "core/bytes.h"
#include "sim/protocol.h"

namespace lm::sim {
namespace {

constexpr std::size_t kHeader = 4;
constexpr std::size_t kLargestDatagram = 65000;
constexpr std::size_t kSendBatch = 64;
constexpr int kPortAttempts = 50;
constexpr int kSendWaitMs = 10;
constexpr std::int64_t kHoldNs = 20'000'000;
constexpr std::uint16_t kMalformedExcess = 1000;

union Address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
    sockaddr_storage storage;
};

Address loopback(int family, std::uint16_t port) {
    Address address{};
    address.any.sa_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
        address.v4.sin_port = htons(port);
        address.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
        address.v6.sin6_port = htons(port);
        address.v6.sin6_addr = in6addr_loopback;
    }
    return address;
}

bool sameAddress(const sockaddr_storage& a, const sockaddr_storage& b, socklen_t length) {
    return std::memcmp(&a, &b, length) == 0;
}

}  // namespace

Result<std::unique_ptr<UdpMedium>> UdpMedium::open(const Options& options, FaultPlan& faults) {
    std::unique_ptr<UdpMedium> medium(new UdpMedium(options, faults));
    // A port that is free on one address may be taken on the other; with a port given there is no choice.
    for (int attempt = 1;; ++attempt) {
        const Result<void> bound = medium->bindBoth(options.port);
        if (bound.ok()) return medium;
        medium->sockets_.clear();
        const bool retry = options.port == 0 && bound.error().sysErrno == EADDRINUSE;
        if (!retry || attempt == kPortAttempts) return bound.error();
    }
}

Result<void> UdpMedium::bindBoth(std::uint16_t port) {
    const Result<int> v4 = bindOne(AF_INET, port);
    if (!v4.ok()) return v4.error();
    Address bound{};
    socklen_t length = sizeof bound;
    if (::getsockname(v4.value(), &bound.any, &length) != 0) return Error::fromErrno(errno, "UDP port");
    port_ = ntohs(bound.v4.sin_port);
    const Result<int> v6 = bindOne(AF_INET6, port_);
    if (v6.ok()) return {};
    const int failure = v6.error().sysErrno;
    if (failure != EAFNOSUPPORT && failure != EADDRNOTAVAIL) return v6.error();
    return {};  // a host without IPv6
}

Result<int> UdpMedium::bindOne(int family, std::uint16_t port) {
    const std::string context = "UDP port " + std::to_string(port);
    const int socket = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket < 0) return Error::fromErrno(errno, context);
    sockets_.emplace_back(socket);
    const int on = 1;
    if (family == AF_INET6 && ::setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) {
        return Error::fromErrno(errno, context);
    }
    // The system caps the buffers at its own limit; a smaller one works, so refusals do not matter.
    static_cast<void>(::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer));
    static_cast<void>(::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer));
    const Address address = loopback(family, port);
    const socklen_t length = family == AF_INET ? sizeof address.v4 : sizeof address.v6;
    if (::bind(socket, &address.any, length) != 0) return Error::fromErrno(errno, context);
    return socket;
}

std::vector<pollfd> UdpMedium::descriptors() const {
    std::vector<pollfd> fds;
    for (const UniqueFd& socket : sockets_)
        fds.push_back({socket.get(), POLLIN, 0});
    return fds;
}

Result<void> UdpMedium::receive(int descriptor, const Handler& handler) {
    for (;;) {
        Address from{};
        socklen_t length = sizeof from;
        const ssize_t size = ::recvfrom(descriptor, in_.data(), in_.size(), 0, &from.any, &length);
        if (size < 0) {
            if (errno == EINTR || errno == ECONNREFUSED) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return {};
            return Error::fromErrno(errno, "UDP receive");
        }
        std::size_t at = 0;
        while (static_cast<std::size_t>(size) - at > kHeader) {
            const std::size_t packet = readLittle<std::uint16_t>(&in_[at]);
            at += kHeader;
            if (packet == 0 || packet > static_cast<std::size_t>(size) - at) break;
            if (in_[at] == kConnect || options_.anyMaster) peer_ = {descriptor, from.storage, length};
            const bool known = peer_.socket == descriptor && peer_.length == length &&
                               sameAddress(peer_.address, from.storage, length);
            if (known) handler({&in_[at], packet});
            at += packet;
        }
    }
}

void UdpMedium::send(const Outbox& packets, std::int64_t nowNs) {
    if (peer_.socket < 0) return;
    for (const Outbox::Packet& packet : packets.packets()) {
        if (faults_.due(StreamFault::ctrGap)) ++counter_;
        if (packet.dto && faults_.due(StreamFault::loseDatagram)) {
            ++counter_;
            ++counters_.packetsLost;
            continue;
        }
        if (openPackets_ == 0) heldUntilNs_ = nowNs + kHoldNs;
        if (bytes_.size() - openOffset_ + kHeader + packet.length > kLargestDatagram) closeDatagram();
        const bool malformed = packet.dto && faults_.due(StreamFault::malformed);
        frame(packets.bytes(packet), malformed ? kMalformedExcess : std::uint16_t{0});
        if (malformed) ++counters_.packetsMalformed;
        // What is not a DTO takes the DTOs before it along, so that answers are never held back.
        if (!packet.dto || malformed || openPackets_ >= options_.pack) closeDatagram();
    }
    transmit();
}

void UdpMedium::frame(std::span<const std::uint8_t> packet, std::uint16_t excess) {
    const std::size_t at = bytes_.size();
    bytes_.resize(at + kHeader + packet.size());
    writeLittle(&bytes_[at], static_cast<std::uint16_t>(packet.size() + excess));
    writeLittle(&bytes_[at + 2], counter_++);
    std::memcpy(&bytes_[at + kHeader], packet.data(), packet.size());
    ++openPackets_;
}

void UdpMedium::closeDatagram() {
    if (openPackets_ == 0) return;
    ready_.push_back({openOffset_, bytes_.size() - openOffset_, openPackets_});
    openOffset_ = bytes_.size();
    openPackets_ = 0;
}

std::int64_t UdpMedium::dueNs() const {
    return openPackets_ == 0 ? std::numeric_limits<std::int64_t>::max() : heldUntilNs_;
}

Result<void> UdpMedium::onDue(std::int64_t /*nowNs*/) {
    closeDatagram();
    transmit();
    return {};
}

void UdpMedium::transmit() {
    for (std::size_t first = 0; first < ready_.size(); first += kSendBatch) {
        transmitBatch(first, std::min(kSendBatch, ready_.size() - first));
    }
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(openOffset_));
    openOffset_ = 0;
    ready_.clear();
}

void UdpMedium::transmitBatch(std::size_t first, std::size_t count) {
    std::array<iovec, kSendBatch> pieces{};
    std::array<mmsghdr, kSendBatch> messages{};
    for (std::size_t i = 0; i < count; ++i) {
        const Datagram& datagram = ready_[first + i];
        pieces[i] = {bytes_.data() + datagram.offset, datagram.length};
        messages[i].msg_hdr = {&peer_.address, peer_.length, &pieces[i], 1, nullptr, 0, 0};
    }
    bool waited = false;
    for (std::size_t done = 0; done < count;) {
        const int sent = ::sendmmsg(peer_.socket, &messages[done], static_cast<unsigned>(count - done), 0);
        if (sent > 0) {
            for (int i = 0; i < sent; ++i)
                counters_.packetsSent += ready_[first + done++].packets;
            counters_.datagramsSent += static_cast<std::uint64_t>(sent);
            waited = false;
            continue;
        }
        if (errno == EINTR || errno == ECONNREFUSED) continue;
        const bool full = errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS;
        if (full && !waited && waitWritable()) {
            waited = true;
            continue;
        }
        counters_.sendFailures += ready_[first + done++].packets;
        waited = false;
    }
}

bool UdpMedium::waitWritable() const {
    pollfd fd{peer_.socket, POLLOUT, 0};
    return ::poll(&fd, 1, kSendWaitMs) > 0;
}

}  // namespace lm::sim
