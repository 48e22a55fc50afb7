// Turns the messages of a raw CAN socket into frames, events and counters: time stamps and drop counter from
// the control data, bus states from error frames.
//
// Threads: one receive thread; what is in CanCounters may be read from any. Lifetime: borrows counters and
// sink pointer, which must outlive it; messages during the call only.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <vector>

#include "hal/can_channel.h"

namespace lm::hal {

/// What a channel counts and knows of its bus.
struct CanCounters {
    std::atomic<std::uint64_t> framesReceived{0};
    std::atomic<std::uint64_t> framesSent{0};
    std::atomic<std::uint64_t> framesLost{0};
    std::atomic<std::uint64_t> errorFrames{0};
    std::atomic<std::uint64_t> busOffCount{0};
    std::atomic<std::uint64_t> sendFailures{0};
    std::atomic<CanBusState> busState{CanBusState::unknown};
};

/// The steady clock and what leads to it from the realtime clock of the kernel's stamps, in nanoseconds.
struct CanClocks {
    std::int64_t steadyNs = 0;
    std::int64_t steadyMinusRealNs = 0;

    static CanClocks read();
};

class CanReceiver {
  public:
    /// `batch`: the most messages between begin() and finish().
    CanReceiver(CanCounters& counters, const std::atomic<IFrameSink*>& sink, std::size_t batch);

    void begin(CanClocks clocks);

    /// One received message of `size` bytes, at `header.msg_iov`. Events go to the sink at once, frames wait
    /// for finish() or lost frames: the sink sees those where they are missing.
    void add(msghdr& header, std::size_t size);

    /// Hands the batch's frames to the sink.
    void finish();

    void reportFailure(int systemError, std::int64_t steadyNs);

  private:
    struct Stamps {
        std::int64_t hostNs;
        std::int64_t hardwareNs;
    };

    Stamps readControl(msghdr& header);
    void onErrorFrame(const std::uint8_t* bytes, std::int64_t timeNs);
    void onControllerProblem(std::uint8_t problem, std::int64_t timeNs);
    void setState(CanBusState state, std::int64_t timeNs);
    void countLost(std::uint32_t count, std::int64_t timeNs);
    void report(CanChannelEventKind kind, std::int64_t timeNs, std::uint32_t value);

    CanCounters& counters_;
    const std::atomic<IFrameSink*>& sink_;
    CanClocks clocks_;
    std::uint32_t kernelDrops_ = 0;  ///< the last total that the kernel told
    std::vector<CanFrame> frames_;
    std::size_t count_ = 0;
};

}  // namespace lm::hal
