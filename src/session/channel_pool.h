// CAN channels that several ECU sessions share: one open channel per interface name, whose users must agree
// on its settings and receive different identifiers.
//
// Threads: every operation may be called from any thread, none from a callback of a channel. Lifetime: the
// pool borrows its adapter, which must outlive all channels; sessions own a channel jointly and must not
// outlive the adapter. A channel closes when its last session lets go of it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "broker/channel_broker.h"
#include "core/result.h"
#include "hal/can_channel.h"

namespace lm::session {

/// Bit/s, 0: unknown.
struct CanBitrates {
    std::uint32_t nominal = 0;
    std::uint32_t data = 0;
};

class SharedChannel final : private broker::IFrameHandler {
  public:
    /// Stands for a session; any address that is its own.
    using Owner = const void*;

    /// Errors: the adapter's and those of opening the channel.
    static Result<std::shared_ptr<SharedChannel>> open(hal::ICanAdapter& adapter,
                                                       const hal::CanChannelConfig& config);
    ~SharedChannel() override;
    SharedChannel(const SharedChannel&) = delete;
    SharedChannel& operator=(const SharedChannel&) = delete;

    const std::string& name() const { return channel_->config().interfaceName; }
    /// The settings it was opened with.
    const hal::CanChannelConfig& config() const { return channel_->config(); }
    broker::ChannelBroker& broker() { return broker_; }
    hal::CanBusState busState() const { return channel_->busState(); }
    hal::CanChannelStatistics statistics() const { return channel_->statistics(); }

    /// What the interface says about itself now; nothing when it cannot be asked.
    std::optional<hal::CanInterfaceState> interfaceState() const;

    /// The bit rates it was opened with, where absent those that the interface has now.
    CanBitrates bitrates() const;

    /// Claims identifiers in A2L notation in place of those that the owner had, all or none. Error:
    /// alreadyOpen "CAN-ID 0xID is already used by another ECU on NAME" (without bit 31).
    Result<void> registerIds(Owner owner, const std::vector<std::uint32_t>& ids);

    /// Gives up every identifier and the load of the owner.
    void releaseIds(Owner owner);

    /// Notes the estimated load of the owner (fraction of 1; 0: none) and returns that of all others.
    double claimLoad(Owner owner, double load);

    /// Closes and opens a channel whose interface went away or down since it was opened, with the settings
    /// and registrations that it has. The first of its sessions that asks does it for all. Errors: those of
    /// opening; the channel then stays closed until the next call.
    Result<void> reopenIfLost();
    /// Reception failed since it was opened. From any thread.
    bool lost() const { return lost_.load(); }

  private:
    SharedChannel(hal::ICanAdapter& adapter, std::unique_ptr<hal::ICanChannel> channel);

    void onFrame(const hal::CanFrame& /*frame*/) override {}
    void onChannelEvent(const hal::CanChannelEvent& event) override;

    // Constant after construction.
    hal::ICanAdapter& adapter_;
    const std::unique_ptr<hal::ICanChannel> channel_;
    broker::ChannelBroker broker_;
    std::uint32_t eventRegistration_ = 0;

    std::atomic<bool> lost_{false};  ///< reception failed since the channel was opened
    std::mutex reopenMutex_;         ///< one session at a time

    std::mutex registryMutex_;  ///< protects the two below
    std::map<std::uint32_t, Owner> ids_;
    std::map<Owner, double> loads_;
};

class ChannelPool {
  public:
    explicit ChannelPool(hal::ICanAdapter& adapter) : adapter_(adapter) {}
    ChannelPool(const ChannelPool&) = delete;
    ChannelPool& operator=(const ChannelPool&) = delete;

    /// The pool of the process, for the interfaces of this machine.
    static ChannelPool& ofThisMachine();

    /// The open channel of that interface, opened when no one has it. Errors (invalidArgument): "NAME: CAN FD
    /// setting differs from another ECU on this channel", "NAME: bitrate 250000 conflicts with 500000 of
    /// another ECU on this channel" ("data bitrate" likewise); those of opening. A bit rate asked for when
    /// the channel was opened without one is ignored with a warning.
    Result<std::shared_ptr<SharedChannel>> acquire(const hal::CanChannelConfig& config);

  private:
    hal::ICanAdapter& adapter_;
    std::mutex mutex_;  ///< protects the map
    std::map<std::string, std::weak_ptr<SharedChannel>> channels_;
};

}  // namespace lm::session
