// Lets other programs of the user work with the ECU of a session that this program holds: their commands go
// through its connection, one operation after the other, each of them whole.
//
// A client begins a lease, sends commands in requests of one or several, and ends it. The lease ends by
// itself when the client vanishes or takes too long between two requests; a write that it had begun is then
// finished and read back. What the session's owner does itself is such an operation too (own()).
//
// Threads: start(), stop() and own() belong to the session's thread; a thread "host-work" sends the commands,
// requests come on the workers of the HTTP server and wait for nothing. Lifetime: borrows the session, which
// must be connected or on its way there, and outlive the host. stop() comes before the session is closed.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "core/result.h"
#include "host/lease.h"
#include "host/presence.h"
#include "host/protocol.h"
#include "http/router.h"
#include "session/session.h"

namespace lm::host {

struct HostSetup {
    session::Session& session;
    Holder holder;
    A2lFile a2l;            ///< as it was when it was read
    bool readOnly = false;  ///< every write of a client is refused
    /// The recording that runs, as clients are told it; from any thread. None: the session's.
    std::function<std::string()> recording = {};
};

class Host {
  public:
    /// Error: "cannot start the sharing: REASON".
    static Result<std::unique_ptr<Host>> start(HostSetup setup);
    ~Host() { stop(); }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// The routes of the sharing, before the server starts.
    void addRoutes(http::Router& router);

    /// While one lives no client's commands come between those of the owner.
    class Own {
      public:
        ~Own();
        Own(Own&& other) noexcept : host_(std::exchange(other.host_, nullptr)) {}
        Own& operator=(Own&&) = delete;

      private:
        friend class Host;
        explicit Own(Host* host) : host_(host) {}
        Host* host_;
    };
    /// Waits until the client that is at work is done, or its time is over. Errors: Error::stopped();
    /// timeout, when clients hold the ECU for longer than any may.
    Result<Own> own();

    /// After the server was stopped: ends the lease, with its write, and the thread. Idempotent.
    void stop();

  private:
    using Clock = std::chrono::steady_clock;
    /// What the thread has to do next for a client.
    struct Job {
        enum class Kind : std::uint8_t { begin, command, announce, written, end };
        Kind kind = Kind::begin;
        nlohmann::json body = {};
        Client client = {};
        std::uint64_t connection = 0;
        std::shared_ptr<http::PeerWatch> watch = {};
        http::Reply reply;
        Clock::time_point until = {};  ///< of a begin: how long its client waits
    };

    explicit Host(HostSetup setup) : setup_(std::move(setup)) {}

    void addJob(Job::Kind kind, http::Request& request, const http::Reply& reply);
    void attach(const http::Request& request, const http::Reply& reply);
    nlohmann::json facts() const;

    void run();
    std::optional<Job> nextJob(std::unique_lock<std::mutex>& lock);
    void dropLateJobs();
    void perform(Job& job);
    void begin(Job& job);
    void written(const Job& job);
    void endLease();
    bool leaseIsOver() const;

    const HostSetup setup_;
    std::optional<std::string> digest_;  ///< of the A2L, once it was asked for; under digestMutex_
    std::mutex digestMutex_;

    std::mutex mutex_;  // the queue and who is at work
    std::condition_variable changed_;
    std::deque<Job> jobs_;
    bool ownWaits_ = false;
    bool ownHolds_ = false;
    bool working_ = false;  ///< a job, or the end of a lease
    bool stopping_ = false;

    // The thread's; `lease_` is looked at under mutex_.
    std::optional<Lease> lease_;
    std::shared_ptr<http::PeerWatch> leaseWatch_;
    Clock::time_point leaseUntil_ = {};
    Clock::time_point leaseEnd_ = {};  ///< however busy it is
    std::thread thread_;
};

}  // namespace lm::host
