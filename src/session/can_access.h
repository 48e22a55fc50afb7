// One session's share of a CAN channel: its identifiers, its settings and its part of the bus load.
//
// Threads: report() on the channel's receive thread; everything else from any thread, not from a callback of
// the channel. Lifetime: owns the channel jointly with the other sessions on it and gives its identifiers up
// when it goes; transports that use the channel's broker must go first.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "a2l/xcp_interface.h"
#include "core/result.h"
#include "session/bus_load.h"
#include "session/channel_pool.h"
#include "session/session_config.h"
#include "xcp/can_transport.h"

namespace lm::session {

class CanAccess {
  public:
    /// Opens or joins the channel of `can.interface` and claims the identifiers that it receives: the
    /// response identifier and the fixed identifiers of DAQ lists. Warns when the A2L describes CAN FD and
    /// the configuration does not ask for it. Errors: invalidArgument "CAN-IDs for XCP are neither configured
    /// nor in the A2L", invalidArgument "CAN-ID 0xID: CAN identifier out of range", the pool's, the
    /// channel's.
    static Result<std::unique_ptr<CanAccess>> obtain(const SessionConfig::Can& config,
                                                     const a2l::XcpInterface& interface, ChannelPool& pool);

    ~CanAccess();
    CanAccess(const CanAccess&) = delete;
    CanAccess& operator=(const CanAccess&) = delete;

    SharedChannel& channel() const { return *channel_; }
    const xcp::CanTransportConfig& transportConfig() const { return transport_; }
    /// Identifiers in A2L notation.
    std::uint32_t cmdId() const { return cmdId_; }
    std::uint32_t resId() const { return resId_; }

    /// Bit rates of the configuration, else of the interface, else of the A2L; a CAN FD channel whose data
    /// bit rate nobody tells runs at the nominal one.
    CanTiming timing() const;

    /// Notes the load of this session's measurement and returns that of the other sessions on the channel.
    double claimLoad(double load) { return channel_->claimLoad(this, load); }
    void releaseLoad() { channel_->claimLoad(this, 0); }

    /// Whether the A2L names fixed identifiers of DAQ lists; without them only the response identifier is
    /// heard.
    bool listIdsFixed() const { return listIdsFixed_; }

    /// Says what happened on the bus: warnings that a user can act upon, the rest for the curious. Of a
    /// controller that changes its state again and again some changes are told, the others counted; that it
    /// is off the bus is told whenever the last message said something else.
    void report(const hal::CanChannelEvent& event);
    /// The same for a controller that is in trouble already.
    void reportBusState();

  private:
    explicit CanAccess(std::shared_ptr<SharedChannel> channel) : channel_(std::move(channel)) {}

    void reportState(hal::CanBusState state, std::int64_t timeNs);
    std::string stateText(hal::CanBusState state) const;

    // Constant once obtain() has returned.
    const std::shared_ptr<SharedChannel> channel_;
    xcp::CanTransportConfig transport_;
    std::uint32_t cmdId_ = 0;
    std::uint32_t resId_ = 0;
    CanBitrates described_;
    bool listIdsFixed_ = false;
    /// Asked once: the receive thread must not wait for the kernel.
    std::optional<hal::CanInterfaceState> interface_;

    std::atomic<bool> lossReported_{false};  ///< said once

    std::mutex stateMutex_;  // everything below
    bool trouble_ = false;   ///< error passive or bus off, and not error active since
    hal::CanBusState told_ = hal::CanBusState::errorActive;  ///< by the last message
    std::uint64_t hidden_ = 0;                               ///< changes since the last message
    std::int64_t spentNs_ = 0;  ///< until then the messages so far have used up the time that is for each
};

}  // namespace lm::session
