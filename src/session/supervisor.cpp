#include "session/supervisor.h"

#include <pthread.h>
#include <utility>

#include "core/log.h"
#include "core/thread.h"

namespace lm::session {
namespace {

constexpr std::chrono::milliseconds kFirstSettling{600};

}  // namespace

Supervisor::Supervisor(ISupervised& supervised, const SupervisorOptions& options, StopToken stop)
    : supervised_(supervised), options_(options), stop_(std::move(stop)) {}

Supervisor::~Supervisor() {
    join();
}

Result<void> Supervisor::start() {
    recordsAtLastTick_ = supervised_.recordsReceived();
    auto thread = startThread("cannot start the supervision", [this] { run(); });
    if (!thread.ok()) return thread.error();
    thread_ = std::move(thread).value();
    return {};
}

void Supervisor::join() {
    if (thread_.joinable()) thread_.join();
}

bool Supervisor::watchesData() const {
    const auto heartbeatNs = static_cast<std::uint64_t>(std::chrono::nanoseconds(options_.heartbeat).count());
    return options_.shortestPeriodNs > 0 && options_.shortestPeriodNs <= heartbeatNs / 4;
}

void Supervisor::run() {
    pthread_setname_np(pthread_self(), "lm-supervisor");
    while (!waitHeartbeat()) {
        const std::string reason = connectionLoss();
        // A stop ends the master's waits, which must not pass for a lost connection.
        if (stop_.requested()) return;
        if (reason.empty()) continue;
        const std::string message = "connection lost: " + reason;
        if (options_.policy == ReconnectPolicy::abort) {
            supervised_.changeState(SessionState::failed, message);
            return;
        }
        supervised_.changeState(SessionState::reconnecting, message);
        supervised_.countReconnect();
        if (!recover()) return;
        recordsAtLastTick_ = supervised_.recordsReceived();
        justStarted_ = true;
    }
}

/// True when a stop was asked for.
bool Supervisor::pause(std::chrono::milliseconds time) {
    constexpr std::chrono::milliseconds kTurn{500};
    for (; time > kTurn; time -= kTurn) {
        turns_.fetch_add(1);
        if (stop_.waitFor(kTurn)) return true;
    }
    turns_.fetch_add(1);
    return stop_.waitFor(time);
}

/// Likewise.
bool Supervisor::waitHeartbeat() {
    auto left = options_.heartbeat;
    if (std::exchange(justStarted_, false) && left > kFirstSettling) {
        if (pause(kFirstSettling)) return true;
        supervised_.settleSamples();
        left -= kFirstSettling;
    }
    const bool stopped = pause(left);
    if (!stopped) supervised_.settleSamples();
    return stopped;
}

/// The reason why the connection counts as lost, empty when it is alive.
std::string Supervisor::connectionLoss() {
    if (watchesData()) {
        const std::uint64_t records = supervised_.recordsReceived();
        const bool silent = records == recordsAtLastTick_;
        recordsAtLastTick_ = records;
        return silent ? "no DAQ data for " + std::to_string(options_.heartbeat.count()) + " ms" : "";
    }
    const Result<bool> running = supervised_.daqRunning();
    if (!running.ok()) return running.error().text();
    return running.value() ? "" : "DAQ no longer running in the ECU";
}

/// True when the measurement runs again, false when supervision ends.
bool Supervisor::recover() {
    std::uint64_t attempt = 0;
    std::string toldHint;
    while (options_.policy == ReconnectPolicy::retryForever || attempt < options_.attempts) {
        ++attempt;
        if (pause(options_.interval)) return false;
        const Result<void> connected = supervised_.reconnect();
        if (stop_.requested()) return false;
        if (!connected.ok()) {
            log::warn("reconnect attempt {}: {}", attempt, connected.error().text());
            continue;
        }
        const Result<std::string> looked = supervised_.lookAgain();
        if (stop_.requested()) return false;
        if (!looked.ok()) {
            log::warn("reconnect attempt {}: {}", attempt, looked.error().text());
            continue;
        }
        if (!looked.value().empty()) {
            supervised_.changeState(SessionState::failed, looked.value());
            return false;
        }
        const Result<void> restarted = supervised_.restartDaq();
        if (stop_.requested()) return false;
        if (!restarted.ok()) {
            log::warn("reconnect attempt {}: DAQ: {}", attempt, restarted.error().text());
            if (restarted.error().hint != toldHint) {
                toldHint = restarted.error().hint;
                if (!toldHint.empty()) log::warn("hint: {}", toldHint);
            }
            continue;
        }
        supervised_.changeState(SessionState::measuring,
                                "reconnected after " + std::to_string(attempt) + " attempt(s)");
        return true;
    }
    supervised_.changeState(SessionState::failed,
                            "reconnect failed after " + std::to_string(attempt) + " attempt(s)");
    return false;
}

}  // namespace lm::session
