// CAN interfaces without hardware: what is sent is kept in the text notation and goes to a function; frames,
// events and faults come on order.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "hal/can_channel.h"

namespace lm::broker::test {

class FakeCan : public hal::ICanAdapter {
  public:
    std::atomic<bool> gone{false};                       ///< opening and sending fail
    unsigned opened = 0;                                 ///< successful calls of open(), of all channels
    hal::CanInterfaceState interface { .kind = "can" };  ///< what "can0" tells about itself
    hal::CanBusState state = hal::CanBusState::errorActive;
    hal::CanChannelStatistics statistics;  ///< of every channel
    hal::IFrameSink* sink = nullptr;       ///< of the channel made last
    std::vector<std::string> sent;
    std::function<void(const hal::CanFrame&)> onSend = [](const hal::CanFrame&) {};

    /// Delivers one batch of frames in the text notation.
    void receive(const std::vector<std::string>& texts) const {
        std::vector<hal::CanFrame> frames;
        for (const std::string& text : texts) {
            frames.push_back(hal::parseCanFrame(text).value());
            frames.back().timestampNs = 1;
            frames.back().hwTimestampNs = 2;
        }
        sink->onFrames(frames.data(), frames.size());
    }

    std::string name() const override { return "fake"; }
    Result<std::vector<hal::CanInterfaceInfo>> listInterfaces() override {
        return std::vector<hal::CanInterfaceInfo>{{"can0", "fake", interface}};
    }
    Result<std::unique_ptr<hal::ICanChannel>> openChannel(hal::CanChannelConfig wanted) override {
        return std::unique_ptr<hal::ICanChannel>(new Channel(*this, std::move(wanted)));
    }

  private:
    class Channel final : public hal::ICanChannel {
      public:
        Channel(FakeCan& bus, hal::CanChannelConfig wanted) : bus_(bus), config_(std::move(wanted)) {}

        void setSink(hal::IFrameSink* receiver) override { bus_.sink = receiver; }
        Result<void> open() override {
            if (bus_.gone) return Error{ErrorCode::notFound, "gone"};
            open_ = true;
            ++bus_.opened;
            return {};
        }
        void close() override { open_ = false; }
        bool isOpen() const override { return open_; }
        Result<void> send(const hal::CanFrame& frame) override {
            if (bus_.gone) return Error{ErrorCode::ioError, "gone"};
            if (auto valid = hal::validate(frame); !valid) return valid;
            bus_.sent.push_back(hal::formatCanFrame(frame));
            bus_.onSend(frame);
            return {};
        }
        const hal::CanChannelConfig& config() const override { return config_; }
        hal::CanBusState busState() const override { return bus_.state; }
        hal::CanChannelStatistics statistics() const override { return bus_.statistics; }

      private:
        FakeCan& bus_;
        const hal::CanChannelConfig config_;
        bool open_ = false;
    };
};

}  // namespace lm::broker::test
