// CAN interfaces without hardware: what is opened is recorded, what is sent goes to a function, and frames
// and events are delivered on order.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "hal/can_channel.h"

namespace lm::session::test {

class FakeCan final : public hal::ICanAdapter {
  public:
    std::vector<std::string> opened;       ///< interface names, one per successful open()
    hal::CanChannelConfig config;          ///< of the channel opened last
    hal::CanLinkState link;                ///< what every interface tells about itself
    hal::CanChannelStatistics statistics;  ///< of every channel
    hal::IFrameSink* sink = nullptr;       ///< of the channel opened last
    std::function<void(const hal::CanFrame&)> onSend = [](const hal::CanFrame&) {};

    /// From now on opening and sending fail with this message; empty: all goes well.
    void fail(const std::string& message) {
        const std::lock_guard lock(mutex_);
        failure_ = message;
    }

    std::string name() const override { return "fake"; }
    Result<std::vector<hal::CanInterfaceInfo>> listInterfaces() override {
        return std::vector<hal::CanInterfaceInfo>{{"can0", "fake", link}, {"can1", "fake", {}}};
    }
    Result<std::unique_ptr<hal::ICanChannel>> openChannel(hal::CanChannelConfig wanted) override {
        return std::unique_ptr<hal::ICanChannel>(std::make_unique<Channel>(*this, std::move(wanted)));
    }

  private:
    class Channel final : public hal::ICanChannel {
      public:
        Channel(FakeCan& bus, hal::CanChannelConfig wanted) : bus_(bus), config_(std::move(wanted)) {}

        void setSink(hal::IFrameSink* receiver) override { sink_ = receiver; }
        Result<void> open() override {
            if (auto passed = bus_.passed(); !passed.ok()) return passed;
            open_ = true;
            bus_.opened.push_back(config_.interfaceName);
            bus_.config = config_;
            bus_.sink = sink_;
            return {};
        }
        void close() override { open_ = false; }
        bool isOpen() const override { return open_; }
        Result<void> send(const hal::CanFrame& frame) override {
            if (auto passed = bus_.passed(); !passed.ok()) return passed;
            bus_.onSend(frame);
            return {};
        }
        const hal::CanChannelConfig& config() const override { return config_; }
        hal::CanBusState busState() const override { return hal::CanBusState::errorActive; }
        hal::CanChannelStatistics statistics() const override { return bus_.statistics; }

      private:
        FakeCan& bus_;
        const hal::CanChannelConfig config_;
        hal::IFrameSink* sink_ = nullptr;
        bool open_ = false;
    };

    Result<void> passed() {
        const std::lock_guard lock(mutex_);
        if (failure_.empty()) return {};
        return Error{ErrorCode::notFound, failure_};
    }

    std::mutex mutex_;
    std::string failure_;  // under mutex_
};

}  // namespace lm::session::test
