// Watches a running measurement and brings it back by the configured policy when the connection is lost.
//
// Threads: start() and join() belong to the owner; everything else runs on the thread "lm-supervisor", which
// also makes all calls of ISupervised. Lifetime: the ISupervised is borrowed and must outlive the supervisor.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "core/result.h"
#include "core/stop_token.h"
#include "session/session_config.h"
#include "session/session_state.h"

namespace lm::session {

/// What the supervisor needs of the measurement.
class ISupervised {
  public:
    virtual ~ISupervised() = default;

    /// Records received since the start; only its change counts.
    virtual std::uint64_t recordsReceived() const = 0;

    /// GET_STATUS: whether DAQ runs in the ECU. May block for the timeouts of the master.
    virtual Result<bool> daqRunning() = 0;

    /// Hands on samples that were held back until more of them would tell their times.
    virtual void settleSamples() = 0;

    /// CONNECT for one reconnection attempt.
    virtual Result<void> reconnect() = 0;

    /// What became of the ECU meanwhile, after reconnect(): why the measurement must not go on, else empty.
    /// Errors are those that a further attempt may mend.
    virtual Result<std::string> lookAgain() = 0;

    /// Configures and starts the DAQ lists of the running measurement once more.
    virtual Result<void> restartDaq() = 0;

    virtual void countReconnect() = 0;
    virtual void changeState(SessionState state, const std::string& message) = 0;
};

struct SupervisorOptions {
    ReconnectPolicy policy = ReconnectPolicy::abort;
    std::uint32_t attempts = 5;  ///< for ReconnectPolicy::retry
    std::chrono::milliseconds interval{1000};
    std::chrono::milliseconds heartbeat{1000};
    /// Shortest nominal period of the lists in nanoseconds, 0 when none is cyclic. The data watch is used
    /// when four periods fit into a heartbeat, else the status watch.
    std::uint64_t shortestPeriodNs = 0;
};

class Supervisor {
  public:
    /// A stop ends the supervision, for good.
    Supervisor(ISupervised& supervised, const SupervisorOptions& options, StopToken stop);
    /// As join().
    ~Supervisor();
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    /// Error: "cannot start the supervision: REASON".
    Result<void> start();

    /// To be called once the stop is requested, which must end the waits of a call of ISupervised that is
    /// under way, too. Idempotent.
    void join();

    bool watchesData() const;
    /// Counts on, twice a second, but while a call of ISupervised takes longer. From any thread.
    std::uint64_t turns() const { return turns_.load(); }

  private:
    void run();
    bool waitHeartbeat();
    bool pause(std::chrono::milliseconds time);
    std::string connectionLoss();
    bool recover();

    // Constant after construction.
    ISupervised& supervised_;
    const SupervisorOptions options_;
    const StopToken stop_;

    std::atomic<std::uint64_t> turns_{0};

    // The supervisor's thread alone.
    std::uint64_t recordsAtLastTick_ = 0;
    bool justStarted_ = true;  ///< the lists, or again after a reconnection

    std::thread thread_;
};

}  // namespace lm::session
