// Serialises what clients want of one ECU: whole operations, one after the other, on the one thread that owns
// the session. It connects, finds out that the ECU has gone, and connects again.
//
// A request that has waited in the queue for as long as its own limit is answered with an error, whatever the
// ECU does to the operation before it. One that has begun is finished.
//
// Threads: post() and the queries from any; start() and stop() belong to the owner. A thread named "ecu-desk"
// runs the tasks, one named "desk-limits" watches over the limits. Lifetime: session and chronicle are
// borrowed until stop(); the session belongs to the desk's thread in between.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "core/result.h"
#include "core/stop_token.h"
#include "http/reply.h"
#include "serve/chronicle.h"
#include "session/session.h"

namespace lm::serve {

class EcuDesk {
  public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void(session::Session&)>;

    /// While the result lives no one else has the ECU's commands. Errors: timeout, those of a stop.
    using Alone = std::function<Result<std::shared_ptr<void>>()>;

    /// Without `alone` there is no one else.
    EcuDesk(session::Session& session, Chronicle& chronicle, Alone alone)
        : session_(session), chronicle_(chronicle), alone_(std::move(alone)) {}
    ~EcuDesk() { stop(); }
    EcuDesk(const EcuDesk&) = delete;
    EcuDesk& operator=(const EcuDesk&) = delete;

    /// `look` is called on the desk's thread ten times a second and after each task. Error: that of a thread.
    Result<void> start(std::function<void(session::Session&)> look);
    /// What waits is answered with an error, what runs is finished. The session's stop is requested by its
    /// owner.
    void stop();

    /// `task` answers the reply. With `needsEcu` it is run with a connected ECU only, else the reply fails.
    void post(const http::Reply& reply, std::chrono::milliseconds limit, bool needsEcu, Task task);
    /// An operation had no answer: the ECU is looked after before the next.
    void doubt() { doubtful_ = true; }

    bool connected() const { return connected_.load(); }

  private:
    struct Waiting {
        http::Reply reply;
        Clock::time_point deadline;
        bool needsEcu;
        Task task;
    };

    void run();
    void runOne(Waiting& one);
    Result<void> connect();
    void heartbeat();
    void lost(const Error& error);
    void watchLimits();
    Clock::time_point nextDeadline() const;

    session::Session& session_;
    Chronicle& chronicle_;
    const Alone alone_;
    std::function<void(session::Session&)> look_;
    std::thread thread_;
    std::thread limits_;
    std::atomic<bool> connected_{false};
    bool doubtful_ = false;        ///< the desk's thread alone, as the next three
    Clock::time_point nextTry_{};  ///< to connect
    Clock::time_point nextBeat_{};
    std::string lastError_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Waiting> queue_;
    bool stopping_ = false;
};

}  // namespace lm::serve
