// The answer that a request waits for, and the stream of events that it may be instead.
//
// Threads: everything from any thread, also after the client or the server has gone: it then does nothing.
// Lifetime: plain handles that may outlive both.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "http/message.h"

namespace lm::http {

/// How a stream stands on the wire.
enum class StreamForm : std::uint8_t {
    events,  ///< server-sent events
    frames,  ///< u32 length of what follows, u8 kind, 3 bytes 0, payload; numbers little-endian
};

/// What a frame holds.
enum class FrameKind : std::uint8_t {
    event = 1,   ///< JSON {"event": NAME, ...}
    window = 2,  ///< of a measurement, in numbers
    alive = 3,   ///< nothing
};

/// Events for one client. What a client does not take in time is dropped whole and counted, never
/// waited for: the next that it gets is then `event: missed` with {"missed": N}.
class EventStream {
  public:
    /// `wake` is called when there is something to take, and nothing was since the last take().
    EventStream(StreamForm form, std::size_t maxBytes, std::function<void()> wake)
        : form_(form), maxBytes_(maxBytes), wake_(std::move(wake)) {}

    StreamForm form() const { return form_; }
    /// `data` is one line, a JSON object. `weight`: what dropping it adds to N. False when it was dropped.
    bool push(std::string_view event, std::string_view data, std::uint64_t weight = 1);
    /// What the events after it cannot be understood without: never dropped while the client is there.
    bool pushAlways(std::string_view event, std::string_view data);
    /// The same of a stream of frames.
    bool pushFrame(FrameKind kind, std::string_view payload, std::uint64_t weight = 1);
    /// What was lost before it came here, told like what was dropped here.
    void addMissed(std::uint64_t count);
    /// The last: the connection is closed when the client has taken all.
    void finish();
    /// Nobody takes anything any more.
    bool closed() const { return closed_.load(); }
    std::uint64_t missed() const { return missedInAll_.load(); }

    // The server's own.
    /// All that waits, as bytes to send.
    std::string take();
    bool finished() const;
    /// What tells a client that there is nothing.
    std::string alive() const;
    void close() { closed_.store(true); }

  private:
    bool add(std::string_view bytes, std::uint64_t weight, bool mayDrop = true);
    std::string formed(std::string_view event, std::string_view data) const;
    void addMissedText();
    void wakeIfIdle(bool wasIdle);

    const StreamForm form_;
    const std::size_t maxBytes_;
    const std::function<void()> wake_;
    mutable std::mutex mutex_;
    std::string waiting_;
    std::uint64_t missed_ = 0;
    bool finished_ = false;
    std::atomic<std::uint64_t> missedInAll_{0};
    std::atomic<bool> closed_{false};
};

/// How a reply reaches its connection.
class IReplyTarget {
  public:
    virtual ~IReplyTarget() = default;
    virtual void send(Response response) = 0;
    /// None: there are as many as the limits allow, and the request was answered so.
    virtual std::shared_ptr<EventStream> stream(StreamForm form) = 0;
};

/// Copies stand for the same answer; the first one that is given counts. When the last copy goes without one,
/// the client gets status 500.
class Reply {
  public:
    explicit Reply(std::unique_ptr<IReplyTarget> target);

    void send(Response response) const;
    void send(const nlohmann::json& json) const { send(jsonResponse(json)); }
    void fail(const Error& error, std::string_view name = {}) const { send(errorResponse(error, name)); }
    /// Answers with a stream of events. None: see IReplyTarget, or it was answered already.
    std::shared_ptr<EventStream> stream(StreamForm form = StreamForm::events) const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace lm::http
