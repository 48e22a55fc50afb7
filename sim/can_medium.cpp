#include "sim/can_medium.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace lm::sim {
namespace {

constexpr std::int64_t kRetryNs = 50'000'000;
// A full send queue empties at the speed of the bus: 50 ms are more than 100 frames at 500 kbit/s.
constexpr int kSendAttempts = 500;
constexpr auto kSendPause = std::chrono::microseconds(100);

UniqueFd openSocket(const Options& options) {
    UniqueFd opened(::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, CAN_RAW));
    if (!opened.valid()) return opened;
    const int socket = opened.get();
    const canid_t bits = (options.canCmdId & CAN_EFF_FLAG) != 0 ? CAN_EFF_MASK : CAN_SFF_MASK;
    const can_filter filter{options.canCmdId, bits | CAN_EFF_FLAG | CAN_RTR_FLAG};
    const int fd = options.canFd ? 1 : 0;
    sockaddr_can address{};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(::if_nametoindex(options.can.c_str()));
    const bool ready = address.can_ifindex != 0 &&
                       ::setsockopt(socket, SOL_CAN_RAW, CAN_RAW_FILTER, &filter, sizeof filter) == 0 &&
                       ::setsockopt(socket, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &fd, sizeof fd) == 0 &&
                       ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (ready) {
        // The system caps the buffer at its own limit; a smaller one works.
        static_cast<void>(::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer));
        return opened;
    }
    const int failure = errno;
    opened = UniqueFd();
    errno = failure;
    return opened;
}

}  // namespace

std::vector<std::uint8_t> canPayload(std::span<const std::uint8_t> packet, const Options& options) {
    static constexpr std::size_t kFdLengths[] = {8, 12, 16, 20, 24, 32, 48, 64};
    std::size_t length = packet.size();
    if (options.maxDlcRequired) {
        length = options.maxDlc();
    } else if (length > 8) {
        length = *std::lower_bound(std::begin(kFdLengths), std::end(kFdLengths) - 1, length);
    }
    std::vector<std::uint8_t> payload(packet.begin(), packet.end());
    payload.resize(length, options.fillByte);
    return payload;
}

Result<std::unique_ptr<CanMedium>> CanMedium::open(const Options& options, FaultPlan& faults) {
    std::unique_ptr<CanMedium> medium(new CanMedium(options, faults));
    const Result<void> attached = medium->attach();
    if (!attached.ok()) return attached.error();
    return medium;
}

CanMedium::CanMedium(const Options& options, FaultPlan& faults)
    : options_(options), faults_(faults), retryNs_(kNever) {}

Result<void> CanMedium::attach() {
    socket_ = openSocket(options_);
    if (!socket_.valid()) return Error::fromErrno(errno, "CAN interface " + options_.can);
    retryNs_ = kNever;
    return {};
}

void CanMedium::detach() {
    socket_ = UniqueFd();
    retryNs_ = 0;
}

Result<void> CanMedium::onDue(std::int64_t nowNs) {
    if (socket_.valid() || nowNs < retryNs_) return {};
    retryNs_ = nowNs + kRetryNs;
    static_cast<void>(attach());  // not there yet: the next time
    return {};
}

std::vector<pollfd> CanMedium::descriptors() const {
    if (!socket_.valid()) return {};
    return {{socket_.get(), POLLIN, 0}};
}

Result<void> CanMedium::receive(int /*descriptor*/, const Handler& handler) {
    for (;;) {
        canfd_frame frame{};
        const ssize_t size = ::read(socket_.get(), &frame, sizeof frame);
        if (size < 0) {
            if (errno == EINTR) continue;
            // Down: the same socket goes on when the interface is up again.
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENETDOWN) return {};
            if (errno != ENODEV) return Error::fromErrno(errno, "CAN receive");
            detach();
            return {};
        }
        if (size != CAN_MTU && size != CANFD_MTU) continue;
        // Who asks for full frames gets no answer to others.
        if (options_.maxDlcRequired && frame.len != options_.maxDlc()) continue;
        const std::size_t room = size == CAN_MTU ? CAN_MAX_DLEN : CANFD_MAX_DLEN;
        handler({frame.data, std::min<std::size_t>(frame.len, room)});
    }
}

void CanMedium::send(const Outbox& packets, std::int64_t /*nowNs*/) {
    for (const Outbox::Packet& packet : packets.packets()) {
        if (!packet.dto) {
            transmit(options_.canResId, packets.bytes(packet));
            continue;
        }
        if (faults_.due(StreamFault::loseDatagram)) {
            ++counters_.packetsLost;
            continue;
        }
        const bool malformed = faults_.due(StreamFault::malformed);
        const std::span<const std::uint8_t> bytes = packets.bytes(packet);
        transmit(packet.canId != 0 ? packet.canId : options_.canDtoId(), malformed ? bytes.first(1) : bytes);
        if (malformed) ++counters_.packetsMalformed;
    }
}

/// Virtual interfaces and emulated controllers know no bit time, and a burst that no bus could carry is lost
/// by their receivers.
void CanMedium::keepDistance() {
    if (options_.frameUs == 0) return;
    std::this_thread::sleep_until(nextFrame_);
    nextFrame_ = std::chrono::steady_clock::now() + std::chrono::microseconds(options_.frameUs);
}

void CanMedium::transmit(std::uint32_t id, std::span<const std::uint8_t> packet) {
    const std::vector<std::uint8_t> payload = canPayload(packet, options_);
    canfd_frame frame{};
    frame.can_id = id;
    frame.len = static_cast<std::uint8_t>(payload.size());
    frame.flags = options_.canFd ? CANFD_BRS : 0;
    std::memcpy(frame.data, payload.data(), payload.size());
    const std::size_t size = options_.canFd ? CANFD_MTU : CAN_MTU;
    keepDistance();
    for (int attempt = 0; socket_.valid() && attempt < kSendAttempts;) {
        if (::write(socket_.get(), &frame, size) == static_cast<ssize_t>(size)) {
            ++counters_.packetsSent;
            ++counters_.datagramsSent;
            return;
        }
        if (errno == EINTR) continue;
        if (errno != ENOBUFS && errno != EAGAIN && errno != EWOULDBLOCK) break;
        ++attempt;
        std::this_thread::sleep_for(kSendPause);
    }
    ++counters_.sendFailures;
}

}  // namespace lm::sim
