// The one way in which a stop reaches the parts of the program. The owner of a stop holds a StopSource, code
// that works or waits holds a StopToken of it: a loop asks requested(), poll() takes descriptor(), a pause is
// waitFor(), a condition variable is notified by a StopCallback. What a stop ended fails with
// Error::stopped().
//
// A source may have a parent: its token is then requested while either is. So a session ends with the
// program, and a measurement without it.
//
// Threads: everything from any thread. Lifetime: tokens keep what they need and may outlive their source; a
// callback borrows what its function touches.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "core/result.h"

namespace lm {

class StopState;

class StopToken {
  public:
    /// Never requested.
    StopToken() = default;

    bool requested() const;

    /// For poll(): readable while a stop is requested; never to be read. -1 of a token without a source.
    int descriptor() const;

    /// Returns at once when a stop is requested, and then true; false after `time`.
    bool waitFor(std::chrono::milliseconds time) const;

  private:
    friend class StopSource;
    friend class StopCallback;
    explicit StopToken(std::shared_ptr<StopState> state) : state_(std::move(state)) {}

    std::shared_ptr<StopState> state_;
};

class StopSource {
  public:
    /// Error: by errno "cannot create an event descriptor: REASON".
    static Result<StopSource> create(const StopToken& parent = {});

    StopToken token() const { return StopToken(state_); }

    /// Has run every callback when it returns.
    void request();

    /// All that a signal handler may do: wakes who polls, and leaves the callbacks (and descriptors of
    /// sources with this parent) to a request() that must follow from a thread. True for the first request.
    bool requestFromSignalHandler() noexcept;

    /// Takes the source's own request back; the parent's stays. Not for a source that is itself a parent, or
    /// is requested from a signal handler.
    void reset();

  private:
    explicit StopSource(std::shared_ptr<StopState> state) : state_(std::move(state)) {}

    std::shared_ptr<StopState> state_;
};

/// Calls a function when a stop is requested, at once when it is already, and possibly more than once. The
/// function must not block, nor make or destroy callbacks. It is not running any more once the destructor has
/// returned.
class StopCallback {
  public:
    StopCallback(const StopToken& token, std::function<void()> function);
    ~StopCallback();
    StopCallback(const StopCallback&) = delete;
    StopCallback& operator=(const StopCallback&) = delete;

  private:
    friend class StopState;
    const std::shared_ptr<StopState> state_;
    const std::function<void()> function_;
};

}  // namespace lm
