// A channel on one SocketCAN interface: a raw socket, a receive thread "rx-" and the interface's name,
// counters.
//
// Threads, lifetime: as of ICanChannel. The descriptor is taken away from senders under a mutex that sending
// shares.
#pragma once

#include <atomic>
#include <memory>
#include <shared_mutex>
#include <thread>

#include "core/unique_fd.h"
#include "hal/can_channel.h"
#include "hal/can_interfaces.h"
#include "hal/can_receiver.h"

namespace lm::hal {

class SocketCanChannel final : public ICanChannel {
  public:
    SocketCanChannel(CanChannelConfig config, std::unique_ptr<ICanInterfaces> interfaces);
    ~SocketCanChannel() override;
    SocketCanChannel(const SocketCanChannel&) = delete;
    SocketCanChannel& operator=(const SocketCanChannel&) = delete;

    void setSink(IFrameSink* sink) override { sink_.store(sink); }
    Result<void> open() override;
    void close() override;
    bool isOpen() const override;
    Result<void> send(const CanFrame& frame) override;
    const CanChannelConfig& config() const override { return config_; }
    CanBusState busState() const override { return counters_.busState.load(); }
    CanChannelStatistics statistics() const override;

  private:
    class Batch;

    Result<void> startReceiving(UniqueFd socket);
    void receiveLoop(std::unique_ptr<Batch> batch);
    bool receive(Batch& batch, CanReceiver& receiver, bool& failing);
    void onReceiveFailure(CanReceiver& receiver, int systemError);

    const CanChannelConfig config_;
    const std::unique_ptr<ICanInterfaces> interfaces_;
    std::atomic<IFrameSink*> sink_{nullptr};
    CanCounters counters_;

    mutable std::shared_mutex socketMutex_;  ///< shared by senders; whole for a change of the socket
    UniqueFd socket_;                        ///< constant while the receive thread runs

    // Set by open and close; constant while the receive thread runs.
    UniqueFd stopEvent_;
    std::thread thread_;
};

}  // namespace lm::hal
