// A CAN channel without hardware: keeps what is sent in the text notation, and delivers what it is told to.
#pragma once

#include <string>
#include <vector>

#include "hal/can_channel.h"

namespace lm::broker::test {

class FakeChannel final : public hal::ICanChannel {
  public:
    hal::IFrameSink* sink = nullptr;
    std::vector<std::string> sent;

    /// Delivers one batch of frames in the text notation.
    void receive(const std::vector<std::string>& texts) {
        std::vector<hal::CanFrame> frames;
        for (const std::string& text : texts) {
            frames.push_back(hal::parseCanFrame(text).value());
            frames.back().timestampNs = 1;
            frames.back().hwTimestampNs = 2;
        }
        sink->onFrames(frames.data(), frames.size());
    }

    void setSink(hal::IFrameSink* newSink) override { sink = newSink; }
    Result<void> open() override { return {}; }
    void close() override {}
    bool isOpen() const override { return true; }
    Result<void> send(const hal::CanFrame& frame) override {
        sent.push_back(hal::formatCanFrame(frame));
        if (frame.id == 0x666) return Error{.code = ErrorCode::ioError, .message = "send on fake"};
        return {};
    }
    const hal::CanChannelConfig& config() const override { return config_; }
    hal::CanBusState busState() const override { return hal::CanBusState::unknown; }
    hal::CanChannelStatistics statistics() const override { return {}; }

  private:
    hal::CanChannelConfig config_{.interfaceName = "fake"};
};

}  // namespace lm::broker::test
