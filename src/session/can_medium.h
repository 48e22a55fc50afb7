// XCP on CAN as a medium: one session's share of a CAN channel, with its identifiers, its part of the bus
// load and what it tells of the bus.
//
// Threads: those of IMedium; nothing from a callback of the channel but report(). Lifetime: owns the channel
// jointly with the other sessions on it and gives its identifiers up when it goes.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "a2l/xcp_interface.h"
#include "session/channel_pool.h"
#include "session/daq_list_ids.h"
#include "session/medium.h"
#include "xcp/can_transport.h"

namespace lm::session {

class CanMedium final : public IMedium {
  public:
    CanMedium(std::shared_ptr<SharedChannel> channel, xcp::CanTransportConfig config, MediumTexts texts,
              const a2l::XcpOnCan& described, DaqListIds listIds);
    ~CanMedium() override;
    CanMedium(const CanMedium&) = delete;
    CanMedium& operator=(const CanMedium&) = delete;

    const MediumTexts& texts() const override { return texts_; }
    xcp::ITransport& transport() override { return transport_; }
    const xcp::CanTransportConfig& transportConfig() const { return config_; }
    const SharedChannel& channel() const { return *channel_; }

    /// Claims the response identifier and those of DAQ lists that A2L or configuration name. Error: the
    /// channel's.
    Result<void> claimIds() { return claim(config_.extraIds); }

    /// On a bus of short frames longer DTOs would never come.
    std::uint16_t largestDto(std::uint16_t told) const override;
    /// To the next length that a frame can have, or to the longest.
    bool mayFill(std::size_t planned, std::size_t length) const override;
    Result<double> claimLoad(const LoadInput& input, double limit) override;
    void releaseLoad() override { channel_->claimLoad(this, 0); }
    /// Bit rates of the configuration, else of the interface, else of the A2L; a CAN FD channel whose data
    /// bit rate no one tells runs at the nominal one.
    CanTiming timing() const;

    /// Of the whole channel, other ECUs' included.
    std::vector<MediumCounter> counters() const override;
    /// From now on the identifiers of these lists are heard, beside those that were claimed first.
    Result<void> prepareLists(xcp::Master& master, std::span<const std::uint16_t> lists) override;
    Result<std::vector<DaqListId>> listIds(xcp::Master& master,
                                           std::span<const std::uint16_t> lists) override;
    /// Only the response identifier is heard where no one tells those of DAQ lists.
    std::string silenceHint() const override;

    Result<void> reopenIfLost() override { return channel_->reopenIfLost(); }
    bool lost() const override { return channel_->lost(); }
    void reportTrouble() override;
    /// Warnings that a user can act upon, the rest for the curious. Of a controller that changes its state
    /// again and again some changes are told, the others counted; that it is off the bus is told whenever the
    /// last message said something else.
    bool report(const xcp::TransportEvent& event) override;

  private:
    Result<void> claim(const std::vector<xcp::CanId>& listIds);
    void reportState(hal::CanBusState state, std::int64_t timeNs);
    std::string stateText(hal::CanBusState state) const;

    // Constant after construction.
    const std::shared_ptr<SharedChannel> channel_;
    const xcp::CanTransportConfig config_;
    const MediumTexts texts_;
    const CanBitrates described_;
    /// Asked once: the receive thread must not wait for the kernel.
    const std::optional<hal::CanInterfaceState> interfaceState_;

    xcp::CanTransport transport_;  ///< uses the channel's broker

    DaqListIds listIds_;  ///< one thread at a time
    std::atomic<bool> listIdsKnown_;
    std::atomic<bool> lossReported_{false};  ///< said once

    std::mutex stateMutex_;  // everything below
    bool trouble_ = false;   ///< error passive or bus off, and not error active since
    hal::CanBusState told_ = hal::CanBusState::errorActive;  ///< by the last message
    std::uint64_t hidden_ = 0;                               ///< changes since the last message
    std::int64_t spentNs_ = 0;  ///< a message takes kMessagePauseNs; those told so far last until here
};

/// Opens or joins the channel of the interface and claims the identifiers that it receives. Warns when the
/// A2L describes CAN FD and the configuration does not ask for it. Errors: invalidArgument "CAN-IDs for XCP
/// are neither configured nor in the A2L", invalidArgument "CAN-ID 0xID: CAN identifier out of range", the
/// pool's, the channel's.
MediumMaker makeCanMedium;

}  // namespace lm::session
