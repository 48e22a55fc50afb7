// The seam between the program and CAN hardware: an adapter lists the interfaces of the machine and makes
// channels, a channel sends frames and hands received ones to one sink.
//
// Threads: setSink, open and close belong to the owner and must not run at the same time; send, isOpen,
// busState and statistics may be called from any thread, also beside open and close. Both operations of
// IFrameSink are called on the channel's receive thread, where the channel must not be closed. Lifetime: the
// sink is borrowed and must outlive the open channel; frames are valid during the call only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/result.h"
#include "hal/can_channel_event.h"
#include "hal/can_frame.h"
#include "hal/can_interface_state.h"

namespace lm::hal {

struct CanChannelConfig {
    std::string interfaceName = {};                ///< e.g. can1 or vcan0; required
    bool fd = false;                               ///< open for CAN FD frames
    std::optional<CanBitTiming> bitrate = {};      ///< nominal timing to set; absent: the interface as it is
    std::optional<CanBitTiming> dataBitrate = {};  ///< CAN FD data-phase timing to set, only with `fd`
    bool listenOnly = false;                       ///< compared and set together with the bit timing
    std::uint64_t receiveBatch = 64;               ///< frames fetched by one receive call; 0 counts as 1
    std::int64_t sendTimeoutMs = 100;  ///< how long a send may wait for room in the transmit queue
};

/// Totals since construction; closing and opening again does not set them back.
struct CanChannelStatistics {
    std::uint64_t framesReceived = 0;
    std::uint64_t framesSent = 0;
    std::uint64_t framesLost = 0;  ///< dropped by the kernel or by the controller
    std::uint64_t errorFrames = 0;
    std::uint64_t busOffCount = 0;
    std::uint64_t sendFailures = 0;
};

class IFrameSink {
  public:
    virtual ~IFrameSink() = default;

    /// A batch of received frames in the order of reception, at least one.
    virtual void onFrames(const CanFrame* frames, std::size_t count) = 0;
    virtual void onChannelEvent(const CanChannelEvent& event) = 0;
};

class ICanChannel {
  public:
    /// Closes the channel.
    virtual ~ICanChannel() = default;

    /// The receiver of frames and events, nullptr for none; to be called before open().
    virtual void setSink(IFrameSink* sink) = 0;

    /// Sets the interface up as configured and starts to receive; a closed channel can be opened again.
    /// Errors leave the channel closed; those that a user can mend carry the shell command that mends them:
    /// alreadyOpen "NAME is already open", notFound for a missing interface, permissionDenied with the errno
    /// EPERM.
    virtual Result<void> open() = 0;

    /// Idempotent. No callback is running or will run once it has returned.
    virtual void close() = 0;

    virtual bool isOpen() const = 0;

    /// Sends one valid frame; waits for room in the transmit queue as configured. Errors: notOpen "NAME is
    /// not open", invalidArgument "CAN FD frame on a classic CAN channel", by errno "send on NAME: ..."
    /// (ENOBUFS: the queue stayed full).
    virtual Result<void> send(const CanFrame& frame) = 0;

    virtual const CanChannelConfig& config() const = 0;
    virtual CanBusState busState() const = 0;
    virtual CanChannelStatistics statistics() const = 0;
};

struct CanInterfaceInfo {
    std::string name;
    std::string driver;  ///< empty for virtual interfaces
    CanInterfaceState state;
};

class ICanAdapter {
  public:
    virtual ~ICanAdapter() = default;

    virtual std::string name() const = 0;

    /// The CAN interfaces of the machine, sorted by name.
    virtual Result<std::vector<CanInterfaceInfo>> listInterfaces() = 0;

    /// A closed channel; nothing is touched yet. Errors (invalidArgument): "no CAN interface given", "data
    /// bitrate requires CAN FD".
    virtual Result<std::unique_ptr<ICanChannel>> openChannel(CanChannelConfig config) = 0;
};

}  // namespace lm::hal
