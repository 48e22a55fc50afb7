// Lets several users share one CAN channel: it is the channel's only sink, hands each received frame to every
// handler with a filter that matches, passes channel events to all, and serialises sending.
//
// Threads: registerHandler, setFilters, unregisterHandler and send from any thread. Handlers are called on
// the channel's receive thread under the registry mutex, so registering waits for a dispatch to end, and once
// unregisterHandler has returned its handler is not called any more. A handler may send from inside its
// callback; registering or unregistering there is a programming fault, which ends the process with a line on
// standard error. Lifetime: borrows the channel, which must outlive the broker and be closed before the
// broker is destroyed; borrows each handler until it is unregistered.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/result.h"
#include "hal/can_channel.h"

namespace lm::broker {

enum class FrameFormat : std::uint8_t { any = 0, standard = 1, extended = 2 };

/// Matches a frame of the format whose identifier equals `id` in the bits of `mask`.
struct Filter {
    std::uint32_t id = 0;
    std::uint32_t mask = 0;  ///< 0: every identifier
    FrameFormat format = FrameFormat::any;
};

class IFrameHandler {
  public:
    virtual ~IFrameHandler() = default;

    /// Once per matching frame, however many filters match.
    virtual void onFrame(const hal::CanFrame& frame) = 0;
    virtual void onChannelEvent(const hal::CanChannelEvent& event) = 0;
};

class ChannelBroker final : public hal::IFrameSink {
  public:
    /// Becomes the sink of the channel, which must be closed.
    explicit ChannelBroker(hal::ICanChannel& channel);
    ~ChannelBroker() override;
    ChannelBroker(const ChannelBroker&) = delete;
    ChannelBroker& operator=(const ChannelBroker&) = delete;

    void onFrames(const hal::CanFrame* frames, std::size_t count) override;
    void onChannelEvent(const hal::CanChannelEvent& event) override;

    /// Returns the id of the registration: 1, 2, 3..., never reused.
    std::uint32_t registerHandler(std::vector<Filter> filters, IFrameHandler& handler);

    /// Exchanges the filters of a registration between two frames. An unknown id is ignored.
    void setFilters(std::uint32_t id, std::vector<Filter> filters);

    /// An unknown id is ignored.
    void unregisterHandler(std::uint32_t id);

    /// The result of the channel's send.
    Result<void> send(const hal::CanFrame& frame);

    const std::string& interfaceName() const { return channel_.config().interfaceName; }

  private:
    struct Registration {
        std::uint32_t id;
        std::vector<Filter> filters;
        IFrameHandler* handler;
    };
    class Dispatch;

    void requireOutsideDispatch(const char* operation) const;

    hal::ICanChannel& channel_;

    std::atomic<std::thread::id> dispatching_{};  ///< the thread inside a callback, none when idle

    std::mutex registryMutex_;  ///< protects the two below
    std::vector<Registration> registrations_;
    std::uint32_t nextId_ = 1;

    std::mutex sendMutex_;
};

}  // namespace lm::broker
