#include "xcp/udp_transport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/bytes.h"
#include "core/log.h"
#include "core/thread.h"
#include "xcp/transport_event.h"

namespace lm::xcp {

namespace {

constexpr std::size_t kHeaderSize = 4;
constexpr std::size_t kDatagramSize = 65536;
constexpr std::size_t kBatchSize = 64;
constexpr int kReceiveWaitMs = 50;
constexpr int kReceiveBufferBytes = 8 * 1024 * 1024;

std::int64_t steadyNow() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Result<UdpTransport::AddressList> resolve(const UdpTransportConfig& config) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int failure =
        ::getaddrinfo(config.host.c_str(), fmt::format("{}", config.port).c_str(), &hints, &found);
    if (failure != 0) {
        const std::string context = fmt::format("XCP on UDP: cannot resolve {}", config.host);
        if (failure == EAI_SYSTEM) return Error::fromErrno(ErrorCode::notFound, errno, context);
        return Error{.code = ErrorCode::notFound, .message = context + ": " + ::gai_strerror(failure)};
    }
    return UdpTransport::AddressList(found);
}

/// Bounds each wait for a datagram; asks for a large receive buffer and for the count of what did not fit
/// into it. A refusal costs only that: close() wakes the receive thread all the same.
void prepareSocket(int socket) {
    const timeval limit = {.tv_sec = 0, .tv_usec = kReceiveWaitMs * 1000};
    if (::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
        log::debug("XCP on UDP: receive time limit: {}", std::strerror(errno));
    }
    const int size = kReceiveBufferBytes;
    if (::setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0 &&
        ::setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0) {
        log::debug("XCP on UDP: receive buffer: {}", std::strerror(errno));
    }
    const int on = 1;
    if (::setsockopt(socket, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on) != 0) {
        log::debug("XCP on UDP: drop counter: {}", std::strerror(errno));
    }
}

}  // namespace

/// The buffers of one recvmmsg call. Pages of the datagram buffers are touched only as far as datagrams
/// reach.
class UdpTransport::Batch {
  public:
    Batch() : bytes_(new std::uint8_t[kBatchSize * kDatagramSize]) {
        for (std::size_t i = 0; i < kBatchSize; ++i) {
            parts_[i] = {.iov_base = bytes_.get() + i * kDatagramSize, .iov_len = kDatagramSize};
            messages_[i] = {};
            messages_[i].msg_hdr.msg_iov = &parts_[i];
            messages_[i].msg_hdr.msg_iovlen = 1;
            messages_[i].msg_hdr.msg_control = &controls_[i];
            messages_[i].msg_hdr.msg_controllen = sizeof(Control);
        }
    }

    /// Waits for a datagram and takes those behind it too. The number of datagrams, or -1 with errno.
    int receive(int socket) {
        // The system has told their control lengths.
        for (std::size_t i = 0; i < received_; ++i)
            messages_[i].msg_hdr.msg_controllen = sizeof(Control);
        const int count = ::recvmmsg(socket, messages_.data(), kBatchSize, MSG_WAITFORONE, nullptr);
        received_ = static_cast<std::size_t>(std::max(count, 0));
        return count;
    }

    const std::uint8_t* data(std::size_t index) const { return bytes_.get() + index * kDatagramSize; }
    std::size_t size(std::size_t index) const { return messages_[index].msg_len; }

    /// The socket's running total of dropped datagrams as told with a datagram; `before` when it tells none.
    std::uint32_t kernelDrops(std::size_t index, std::uint32_t before) {
        msghdr& header = messages_[index].msg_hdr;
        for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item)) {
            if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SO_RXQ_OVFL) {
                std::memcpy(&before, CMSG_DATA(item), sizeof before);
            }
        }
        return before;
    }

  private:
    struct Control {
        alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(std::uint32_t))> bytes;
    };

    std::unique_ptr<std::uint8_t[]> bytes_;
    std::array<mmsghdr, kBatchSize> messages_;
    std::array<iovec, kBatchSize> parts_;
    std::array<Control, kBatchSize> controls_;
    std::size_t received_ = 0;  ///< datagrams of the last call
};

UdpTransport::UdpTransport(UdpTransportConfig config) : config_(std::move(config)) {}

UdpTransport::~UdpTransport() {
    close();
}

Result<void> UdpTransport::open() {
    if (running_ && !stale_) return {};
    close();
    stale_ = false;
    if (config_.host.empty()) {
        return Error{.code = ErrorCode::invalidArgument, .message = "XCP on UDP: no host configured"};
    }
    wakeUp_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeUp_.valid()) return Error::fromErrno(errno, "XCP on UDP: eventfd");
    if (auto opened = openSocket(); !opened) {
        close();
        return opened;
    }
    counterSeen_ = false;
    lastKernelDrops_ = 0;
    auto started = startReceiving();
    if (!started) close();
    return started;
}

Result<void> UdpTransport::startReceiving() {
    constexpr const char* kContext = "XCP on UDP: cannot start the receive thread";
    auto batch = allocateFor<Batch>(kContext);
    if (!batch) return batch.error();
    running_ = true;
    auto thread = startThread(
        kContext, [this, memory = std::move(batch).value()]() mutable { receiveLoop(std::move(memory)); });
    if (!thread) return thread.error();
    thread_ = std::move(thread).value();
    return {};
}

Result<void> UdpTransport::openSocket() {
    // Asked once: a name server that the network has lost would hold up every attempt to reconnect.
    if (!addresses_) {
        auto found = resolve(config_);
        if (!found) return found.error();
        addresses_ = std::move(found).value();
    }
    int lastError = EADDRNOTAVAIL;
    for (const addrinfo* address = addresses_.get(); address != nullptr; address = address->ai_next) {
        UniqueFd candidate(::socket(address->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, address->ai_protocol));
        if (candidate.valid() && ::connect(candidate.get(), address->ai_addr, address->ai_addrlen) == 0) {
            prepareSocket(candidate.get());
            const std::lock_guard lock(sendMutex_);
            socket_ = std::move(candidate);
            sendCounter_ = 0;
            return {};
        }
        lastError = errno;
    }
    return Error::fromErrno(
        lastError, fmt::format("XCP on UDP: cannot open socket to {}:{}", config_.host, config_.port));
}

void UdpTransport::close() {
    running_ = false;
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        if (::shutdown(socket_.get(), SHUT_RD) != 0 || ::write(wakeUp_.get(), &one, sizeof one) < 0) {
            log::debug("XCP on UDP: wake-up: {}",
                       std::strerror(errno));  // the time limit of the wait ends the thread
        }
        thread_.join();
    }
    const std::lock_guard lock(sendMutex_);
    socket_ = UniqueFd();
    wakeUp_ = UniqueFd();
}

Result<void> UdpTransport::send(const std::uint8_t* data, std::size_t length) {
    const std::lock_guard lock(sendMutex_);
    if (!running_ || !socket_.valid()) {
        return Error{.code = ErrorCode::notOpen, .message = "XCP on UDP: transport not started"};
    }
    if (length == 0 || length > config_.maxPacketSize || length > 0xFFFF) {
        return Error{.code = ErrorCode::invalidArgument, .message = "XCP packet too large for the transport"};
    }
    std::array<std::uint8_t, kHeaderSize> header{};
    writeLittle(header.data(), static_cast<std::uint16_t>(length));
    writeLittle(header.data() + 2, sendCounter_++);
    std::array<iovec, 2> parts = {{{.iov_base = header.data(), .iov_len = header.size()},
                                   {.iov_base = const_cast<std::uint8_t*>(data), .iov_len = length}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();

    bool refusedBefore = false;
    while (::sendmsg(socket_.get(), &message, MSG_NOSIGNAL) < 0) {
        const int failure = errno;
        if (failure == EINTR) continue;
        if (failure == ECONNREFUSED && !std::exchange(refusedBefore, true))
            continue;  // an earlier datagram's
        if (failure != ECONNREFUSED) stale_ = true;
        return Error::fromErrno(failure, "XCP on UDP: send");
    }
    return {};
}

void UdpTransport::receiveLoop(std::unique_ptr<Batch> batch) {
    ::pthread_setname_np(::pthread_self(), "xcp-udp-rx");
    while (running_) {
        // One call waits and receives: every answer pays for the calls in front of it.
        const int count = batch->receive(socket_.get());
        if (!running_) return;  // what close() woke received nothing
        if (count >= 0) {
            onBatch(*batch, static_cast<std::size_t>(count));
        } else if (const int failure = errno; failure != EAGAIN && failure != EWOULDBLOCK &&
                                              failure != EINTR && failure != ECONNREFUSED) {
            report({.what = ReceiveFailed{.error = failure}});
            // A broken socket fails at once; without this wait its errors would come without end.
            pollfd wait = {.fd = wakeUp_.get(), .events = POLLIN, .revents = 0};
            ::poll(&wait, 1, kReceiveWaitMs);
        }
    }
}

void UdpTransport::onBatch(Batch& batch, std::size_t count) {
    const ReceiveTime time{.hostNs = steadyNow(), .hardwareNs = 0};
    for (std::size_t i = 0; i < count; ++i) {
        noteKernelDrops(batch.kernelDrops(i, lastKernelDrops_));
        onDatagram(batch.data(i), batch.size(i), time);
    }
}

void UdpTransport::onDatagram(const std::uint8_t* data, std::size_t size, ReceiveTime time) {
    datagrams_.add(1);
    IPacketSink* const sink = sink_.load();
    std::size_t at = 0;
    while (size - at >= kHeaderSize) {
        const std::size_t length = readLittle<std::uint16_t>(data + at);
        if (length == 0 || length > size - at - kHeaderSize) break;
        checkCounter(readLittle<std::uint16_t>(data + at + 2));
        packets_.add(1);
        if (sink != nullptr) sink->onPacket(data + at + kHeaderSize, length, time);
        at += kHeaderSize + length;
    }
    if (at != size) malformedDatagrams_.add(1);
}

void UdpTransport::checkCounter(std::uint16_t counter) {
    const auto expected = static_cast<std::uint16_t>(lastCounter_ + 1);
    const bool first = !std::exchange(counterSeen_, true);
    lastCounter_ = counter;
    if (first) {
        newestCounter_ = counter;
        arrived_.set();
        return;
    }
    if (counter != expected) counterGaps_.add(1);
    noteMissing(counter);
}

void UdpTransport::noteMissing(std::uint16_t counter) {
    const bool late = static_cast<std::uint16_t>(newestCounter_ - counter) < kLate;
    // A slave that begins again must not take back what was missing before it did.
    const bool firstAgain = counter == 0 && newestCounter_ != 0 && arrived_[0];
    if (late && !firstAgain) {
        // Or doubled by the network.
        if (!arrived_[counter % kLate]) missingPackets_.subtract(1);
        arrived_.set(counter % kLate);
        return;
    }
    const auto ahead = static_cast<std::uint16_t>(counter - newestCounter_);
    // More than half the range ahead is far behind.
    const bool begunAnew = ahead > 0x8000 || (counter == 0 && ahead != 1);
    if (begunAnew) {
        arrived_.set();
    } else {
        missingPackets_.add(ahead - 1U);
        for (std::uint16_t i = 1; i < std::min(ahead, kLate); ++i)
            arrived_.reset(static_cast<std::uint16_t>(counter - i) % kLate);
        arrived_.set(counter % kLate);
    }
    newestCounter_ = counter;
}

void UdpTransport::noteKernelDrops(std::uint32_t total) {
    if (total == lastKernelDrops_) return;
    const std::uint32_t dropped = total - lastKernelDrops_;
    kernelDrops_.add(dropped);
    lastKernelDrops_ = total;
    report({.what = PacketsLost{.count = dropped}});
}

void UdpTransport::report(const TransportEvent& event) {
    if (IPacketSink* const sink = sink_.load()) sink->onTransportEvent(event);
}

UdpStatistics UdpTransport::statistics() const {
    return {.datagrams = datagrams_.get(),
            .packets = packets_.get(),
            .malformedDatagrams = malformedDatagrams_.get(),
            .counterGaps = counterGaps_.get(),
            .missingPackets = missingPackets_.get(),
            .kernelDrops = kernelDrops_.get()};
}

}  // namespace lm::xcp
