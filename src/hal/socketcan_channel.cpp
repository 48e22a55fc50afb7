#include "hal/socketcan_channel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>
#include <vector>

#include "core/log.h"
#include "core/thread.h"
#include "hal/can_interface_setup.h"
#include "hal/can_socket.h"

namespace lm::hal {
namespace {

constexpr std::size_t kThreadNameLength = 15;
constexpr int kRetryMs = 100;
constexpr auto kQueueFullPause = std::chrono::microseconds(100);

std::size_t batchSize(const CanChannelConfig& config) {
    // recvmmsg takes no more at once than there may be parts in one message.
    return std::clamp<std::uint64_t>(config.receiveBatch, 1, 1024);
}

/// 0, or the errno of the write.
int writeFrame(int socket, const KernelFrame& frame) {
    // A blocking socket would wait without limit when its own buffer is full before the queue is.
    const ssize_t sent = ::send(socket, &frame.frame, frame.size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) return errno;
    return static_cast<std::size_t>(sent) == frame.size ? 0 : EIO;
}

}  // namespace

/// The message slots of one recvmmsg call.
class SocketCanChannel::Batch {
  public:
    explicit Batch(std::size_t size) : slots_(size), parts_(size), messages_(size) {
        for (std::size_t i = 0; i < size; ++i) {
            parts_[i] = {.iov_base = &slots_[i].frame, .iov_len = sizeof slots_[i].frame};
            messages_[i].msg_hdr.msg_iov = &parts_[i];
            messages_[i].msg_hdr.msg_iovlen = 1;
            messages_[i].msg_hdr.msg_control = slots_[i].control.data();
        }
    }

    /// The number of messages, or -1 with errno.
    int receive(int socket) {
        for (std::size_t i = 0; i < used_; ++i) {
            messages_[i].msg_hdr.msg_controllen = sizeof slots_[i].control;
        }
        const int count = ::recvmmsg(socket, messages_.data(), static_cast<unsigned>(messages_.size()),
                                     MSG_DONTWAIT, nullptr);
        used_ = count < 0 ? messages_.size() : static_cast<std::size_t>(count);
        return count;
    }

    msghdr& header(std::size_t index) { return messages_[index].msg_hdr; }
    std::size_t bytes(std::size_t index) const { return messages_[index].msg_len; }
    std::size_t size() const { return messages_.size(); }

  private:
    struct Slot {
        canfd_frame frame{};
        alignas(cmsghdr) std::array<std::uint8_t, 152> control{};
    };

    std::vector<Slot> slots_;
    std::vector<iovec> parts_;
    std::vector<mmsghdr> messages_;
    std::size_t used_ = messages_.size();  ///< slots whose control length the last call may have changed
};

SocketCanChannel::SocketCanChannel(CanChannelConfig config, std::unique_ptr<ICanInterfaces> interfaces)
    : config_(std::move(config)), interfaces_(std::move(interfaces)) {}

SocketCanChannel::~SocketCanChannel() {
    close();
}

Result<void> SocketCanChannel::open() {
    if (isOpen()) {
        return Error{.code = ErrorCode::alreadyOpen, .message = config_.interfaceName + " is already open"};
    }
    const auto state = setUpCanInterface(config_, *interfaces_);
    if (!state) return state.error();
    auto socket = openCanSocket(config_.interfaceName, config_.fd);
    if (!socket) return socket.error();
    counters_.busState = state.value();
    auto started = startReceiving(std::move(socket).value());
    if (!started) close();
    return started;
}

Result<void> SocketCanChannel::startReceiving(UniqueFd socket) {
    stopEvent_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stopEvent_.valid()) return Error::fromErrno(errno, "eventfd");
    {
        const std::lock_guard lock(socketMutex_);
        socket_ = std::move(socket);
    }
    const std::string context = "start receiving on " + config_.interfaceName;
    auto batch = allocateFor<Batch>(context, batchSize(config_));
    if (!batch) return batch.error();
    auto thread = startThread(
        context, [this, memory = std::move(batch).value()]() mutable { receiveLoop(std::move(memory)); });
    if (!thread) return thread.error();
    thread_ = std::move(thread).value();
    return {};
}

void SocketCanChannel::close() {
    if (thread_.joinable()) {
        // Neither full nor interruptible: the counter holds 0 and the descriptor does not block.
        if (::eventfd_write(stopEvent_.get(), 1) != 0) {
            log::error("{}: stop event: {}", config_.interfaceName, std::strerror(errno));
        }
        thread_.join();
    }
    const std::lock_guard lock(socketMutex_);
    socket_ = UniqueFd();
    stopEvent_ = UniqueFd();
}

bool SocketCanChannel::isOpen() const {
    const std::shared_lock lock(socketMutex_);
    return socket_.valid();
}

Result<void> SocketCanChannel::send(const CanFrame& frame) {
    const std::shared_lock lock(socketMutex_);
    if (!socket_.valid()) {
        return Error{.code = ErrorCode::notOpen, .message = config_.interfaceName + " is not open"};
    }
    if (frame.has(CanFrame::fd) && !config_.fd) {
        return Error{.code = ErrorCode::invalidArgument, .message = "CAN FD frame on a classic CAN channel"};
    }
    const KernelFrame kernel = toKernelFrame(frame);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(config_.sendTimeoutMs);
    int failure = writeFrame(socket_.get(), kernel);
    while (failure == EINTR || failure == ENOBUFS || failure == EAGAIN) {
        if (failure != EINTR) {
            if (std::chrono::steady_clock::now() >= deadline) break;
            std::this_thread::sleep_for(kQueueFullPause);
        }
        failure = writeFrame(socket_.get(), kernel);
    }
    if (failure != 0) {
        counters_.sendFailures.fetch_add(1, std::memory_order_relaxed);
        return Error::fromErrno(failure, "send on " + config_.interfaceName);
    }
    counters_.framesSent.fetch_add(1, std::memory_order_relaxed);
    return {};
}

CanChannelStatistics SocketCanChannel::statistics() const {
    return {.framesReceived = counters_.framesReceived.load(),
            .framesSent = counters_.framesSent.load(),
            .framesLost = counters_.framesLost.load(),
            .errorFrames = counters_.errorFrames.load(),
            .busOffCount = counters_.busOffCount.load(),
            .sendFailures = counters_.sendFailures.load()};
}

void SocketCanChannel::receiveLoop(std::unique_ptr<Batch> batch) {
    ::pthread_setname_np(::pthread_self(),
                         ("rx-" + config_.interfaceName).substr(0, kThreadNameLength).c_str());
    CanReceiver receiver(counters_, sink_, batch->size());
    bool failing = false;
    std::array<pollfd, 2> waits = {{{.fd = socket_.get(), .events = POLLIN, .revents = 0},
                                    {.fd = stopEvent_.get(), .events = POLLIN, .revents = 0}}};
    while (waits[1].revents == 0) {
        if (::poll(waits.data(), waits.size(), -1) < 0) {
            if (errno == EINTR) continue;
            onReceiveFailure(receiver, errno);
            return;
        }
        if (waits[0].revents == 0 || waits[1].revents != 0) continue;
        // A broken socket stays readable; without this wait its errors would come without end.
        if (!receive(*batch, receiver, failing)) ::poll(&waits[1], 1, kRetryMs);
    }
}

/// False after a failure that may last; only the first of a run is reported.
bool SocketCanChannel::receive(Batch& batch, CanReceiver& receiver, bool& failing) {
    const int count = batch.receive(socket_.get());
    if (count < 0) {
        const int failure = errno;
        if (failure == EINTR || failure == EAGAIN) return true;
        if (!std::exchange(failing, true)) onReceiveFailure(receiver, failure);
        return false;
    }
    failing = false;
    receiver.begin(CanClocks::read());
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
        receiver.add(batch.header(i), batch.bytes(i));
    }
    receiver.finish();
    return true;
}

void SocketCanChannel::onReceiveFailure(CanReceiver& receiver, int systemError) {
    log::warn("{}: receive failed: {}", config_.interfaceName, std::strerror(systemError));
    receiver.reportFailure(systemError, CanClocks::read().steadyNs);
}

}  // namespace lm::hal
