#include "hal/can_receiver.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <linux/can.h>
#include <linux/can/error.h>

namespace lm::hal {
namespace {

/// The control data of SO_TIMESTAMPING: software stamp, an unused one, hardware stamp.
struct KernelStamps {
    timespec software;
    timespec unused;
    timespec hardware;
};

std::int64_t nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

std::int64_t clockNs(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return nanoseconds(now);
}

void decodeFrame(const std::uint8_t* bytes, std::size_t size, canid_t id, CanFrame& frame) {
    const bool extended = (id & CAN_EFF_FLAG) != 0;
    frame.id = id & (extended ? CAN_EFF_MASK : CAN_SFF_MASK);
    frame.flags = extended ? CanFrame::extended : 0;
    if ((id & CAN_RTR_FLAG) != 0) frame.set(CanFrame::remote);
    std::size_t limit = CAN_MAX_DLEN;
    if (size == CANFD_MTU) {
        limit = CANFD_MAX_DLEN;
        const std::uint8_t kernelFlags = bytes[offsetof(canfd_frame, flags)];
        frame.set(CanFrame::fd);
        if ((kernelFlags & CANFD_BRS) != 0) frame.set(CanFrame::brs);
        if ((kernelFlags & CANFD_ESI) != 0) frame.set(CanFrame::esi);
    }
    frame.length = static_cast<std::uint8_t>(std::min<std::size_t>(bytes[offsetof(canfd_frame, len)], limit));
    frame.data.fill(0);
    std::memcpy(frame.data.data(), bytes + offsetof(canfd_frame, data), frame.length);
}

}  // namespace

/// The realtime clock first: a stall between the two then moves stamps later, never before the arrival.
CanClocks CanClocks::read() {
    const std::int64_t real = clockNs(CLOCK_REALTIME);
    const std::int64_t steady = clockNs(CLOCK_MONOTONIC);
    return {.steadyNs = steady, .steadyMinusRealNs = steady - real};
}

CanReceiver::CanReceiver(CanCounters& counters, const std::atomic<IFrameSink*>& sink, std::size_t batch)
    : counters_(counters), sink_(sink), frames_(batch) {}

void CanReceiver::begin(CanClocks clocks) {
    clocks_ = clocks;
    count_ = 0;
}

void CanReceiver::add(msghdr& header, std::size_t size) {
    const Stamps stamps = readControl(header);
    if (size < CAN_MTU) return;
    const auto* const bytes = static_cast<const std::uint8_t*>(header.msg_iov->iov_base);
    canid_t id = 0;
    std::memcpy(&id, bytes, sizeof id);
    if ((id & CAN_ERR_FLAG) != 0) {
        onErrorFrame(bytes, stamps.hostNs);
        return;
    }
    CanFrame& frame = frames_[count_++];
    frame.timestampNs = stamps.hostNs;
    frame.hwTimestampNs = stamps.hardwareNs;
    decodeFrame(bytes, size, id, frame);
}

void CanReceiver::finish() {
    if (count_ == 0) return;
    counters_.framesReceived.fetch_add(count_, std::memory_order_relaxed);
    if (IFrameSink* const sink = sink_.load(std::memory_order_acquire))
        sink->onFrames(frames_.data(), count_);
    count_ = 0;
}

void CanReceiver::reportFailure(int systemError, std::int64_t steadyNs) {
    report(CanChannelEventKind::receiveFailed, steadyNs, static_cast<std::uint32_t>(systemError));
}

CanReceiver::Stamps CanReceiver::readControl(msghdr& header) {
    Stamps stamps{.hostNs = clocks_.steadyNs, .hardwareNs = 0};
    std::uint32_t drops = kernelDrops_;
    for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item)) {
        if (item->cmsg_level != SOL_SOCKET) continue;
        if (item->cmsg_type == SO_RXQ_OVFL && item->cmsg_len >= CMSG_LEN(sizeof drops)) {
            std::memcpy(&drops, CMSG_DATA(item), sizeof drops);
        } else if (item->cmsg_type == SCM_TIMESTAMPING && item->cmsg_len >= CMSG_LEN(sizeof(KernelStamps))) {
            KernelStamps kernel;
            std::memcpy(&kernel, CMSG_DATA(item), sizeof kernel);
            // A clock set back in between must not let a frame come from the future.
            const std::int64_t software = nanoseconds(kernel.software);
            if (software != 0) {
                stamps.hostNs = std::min(software + clocks_.steadyMinusRealNs, clocks_.steadyNs);
            }
            stamps.hardwareNs = nanoseconds(kernel.hardware);
        }
    }
    if (drops != kernelDrops_) {
        countLost(drops - kernelDrops_, stamps.hostNs);
        kernelDrops_ = drops;
    }
    return stamps;
}

void CanReceiver::onErrorFrame(const std::uint8_t* bytes, std::int64_t timeNs) {
    canid_t id = 0;
    std::memcpy(&id, bytes, sizeof id);
    counters_.errorFrames.fetch_add(1, std::memory_order_relaxed);
    if ((id & CAN_ERR_BUSOFF) != 0) {
        counters_.busOffCount.fetch_add(1, std::memory_order_relaxed);
        setState(CanBusState::busOff, timeNs);
    }
    if ((id & CAN_ERR_RESTARTED) != 0) setState(CanBusState::errorActive, timeNs);
    if ((id & CAN_ERR_CRTL) != 0) onControllerProblem(bytes[offsetof(can_frame, data) + 1], timeNs);
    report(CanChannelEventKind::errorFrame, timeNs, id & CAN_ERR_MASK);
}

void CanReceiver::onControllerProblem(std::uint8_t problem, std::int64_t timeNs) {
    if ((problem & (CAN_ERR_CRTL_RX_PASSIVE | CAN_ERR_CRTL_TX_PASSIVE)) != 0) {
        setState(CanBusState::errorPassive, timeNs);
    } else if ((problem & (CAN_ERR_CRTL_RX_WARNING | CAN_ERR_CRTL_TX_WARNING)) != 0) {
        setState(CanBusState::errorWarning, timeNs);
    } else if ((problem & CAN_ERR_CRTL_ACTIVE) != 0) {
        setState(CanBusState::errorActive, timeNs);
    }
    if ((problem & (CAN_ERR_CRTL_RX_OVERFLOW | CAN_ERR_CRTL_TX_OVERFLOW)) != 0) countLost(1, timeNs);
}

void CanReceiver::setState(CanBusState state, std::int64_t timeNs) {
    if (counters_.busState.exchange(state) == state) return;
    report(CanChannelEventKind::stateChanged, timeNs, 0);
}

void CanReceiver::countLost(std::uint32_t count, std::int64_t timeNs) {
    finish();  // what came before the hole is told before it
    counters_.framesLost.fetch_add(count, std::memory_order_relaxed);
    report(CanChannelEventKind::framesLost, timeNs, count);
}

void CanReceiver::report(CanChannelEventKind kind, std::int64_t timeNs, std::uint32_t value) {
    IFrameSink* const sink = sink_.load(std::memory_order_acquire);
    if (sink == nullptr) return;
    sink->onChannelEvent(
        {.kind = kind, .timeNs = timeNs, .state = counters_.busState.load(), .value = value});
}

}  // namespace lm::hal
