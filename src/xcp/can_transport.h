// XCP on CAN and CAN FD: one packet is one frame. The transport owns no channel; it receives and sends
// through a broker, so that several transports can share one channel. At log level debug every frame is
// printed in the text notation.
//
// Threads: open, close, setListIds and setSink belong to the owner and must not run at the same time, nor
// inside a callback; send may be called from any thread. The sink is called on the channel's receive thread.
// Lifetime: the broker is borrowed and must outlive the transport; the sink is borrowed, set before open(),
// and must outlive the transport or be replaced first.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "broker/channel_broker.h"
#include "xcp/transport.h"

namespace lm::xcp {

struct CanId {
    std::uint32_t id = 0;   ///< without flag bits
    bool extended = false;  ///< 29 bits

    /// From A2L notation, in which bit 31 marks a 29-bit identifier; the other bits are taken as they are.
    static constexpr CanId fromA2l(std::uint32_t number) {
        return {.id = number & 0x7FFFFFFFU, .extended = (number & 0x80000000U) != 0};
    }
    constexpr std::uint32_t toA2l() const { return id | (extended ? 0x80000000U : 0U); }

    bool operator==(const CanId&) const = default;
};

struct CanTransportConfig {
    CanId cmdId = {};                  ///< frames from master to slave (CMD, STIM)
    CanId resId = {};                  ///< frames from slave to master (RES, ERR, EV, SERV, DAQ)
    std::vector<CanId> extraIds = {};  ///< of DAQ lists, until setListIds()
    bool maxDlcRequired = false;       ///< every frame is sent with `maxDlc` bytes
    bool fd = false;                   ///< frames are CAN FD
    bool brs = false;                  ///< CAN FD frames are sent with bit-rate switch
    std::uint8_t maxDlc = 8;    ///< largest payload in bytes: 8, or with `fd` a CAN FD length from 8 to 64
    std::uint8_t fillByte = 0;  ///< padding
};

class CanTransport final : public ITransport, public broker::IFrameHandler {
  public:
    CanTransport(CanTransportConfig config, broker::ChannelBroker& broker);
    ~CanTransport() override;
    CanTransport(const CanTransport&) = delete;
    CanTransport& operator=(const CanTransport&) = delete;

    void setSink(IPacketSink* sink) override { sink_.store(sink); }

    /// Subscribes at the broker; the channel is its owner's business. Error: invalidArgument "invalid XCP on
    /// CAN MAX_DLC".
    Result<void> open() override;
    void close() override;

    /// Further identifiers whose frames are packets for this transport, in place of those it had.
    void setListIds(std::vector<CanId> ids);

    /// Errors: invalidArgument "XCP packet does not fit into a CAN frame", else the channel's.
    Result<void> send(const std::uint8_t* data, std::size_t length) override;

    std::size_t maxPacketSize() const override { return config_.maxDlc; }

    void onFrame(const hal::CanFrame& frame) override;
    void onChannelEvent(const hal::CanChannelEvent& event) override;

  private:
    std::vector<broker::Filter> filters() const;
    void trace(const char* direction, const hal::CanFrame& frame) const;
    void watchForSecrets(std::uint8_t command);

    const CanTransportConfig config_;
    broker::ChannelBroker& broker_;
    std::atomic<IPacketSink*> sink_{nullptr};
    std::atomic<bool> secret_{false};  ///< seeds and keys may be under way, which no log shows
    // The owner's, one thread at a time.
    std::optional<std::uint32_t> subscription_;  ///< the broker's id
    std::vector<CanId> listIds_;
};

}  // namespace lm::xcp
