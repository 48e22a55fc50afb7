#include "session/supervisor.h"

#include <atomic>
#include <deque>
#include <vector>

#include <gtest/gtest.h>

namespace lm::session {
namespace {

using namespace std::chrono_literals;

/// A measurement whose answers are scripted; what the supervisor does is written down as lines.
class ScriptedMeasurement final : public ISupervised {
  public:
    std::uint64_t recordsReceived() const override { return alive_ ? ++records_ : records_.load(); }

    Result<bool> daqRunning() override {
        if (statusErrors_.empty()) return true;
        const std::string answer = statusErrors_.front();
        statusErrors_.pop_front();
        if (answer == "stopped") return false;
        return Error{ErrorCode::timeout, answer};
    }
    Result<void> reconnect() override {
        note("connect");
        if (connectFailures_ > 0 || neverConnects_) {
            --connectFailures_;
            return Error{ErrorCode::timeout, "no answer"};
        }
        return {};
    }
    Result<void> restartDaq() override {
        note("restart");
        if (restartFailures_-- > 0) return Error{ErrorCode::protocolError, "refused"};
        alive_ = true;
        return {};
    }
    void countReconnect() override { note("count"); }
    void changeState(SessionState state, const std::string& message) override {
        note(std::string(sessionStateName(state)) + ": " + message);
    }

    void note(const std::string& line) {
        const std::lock_guard lock(mutex_);
        lines_.push_back(line);
        changed_.notify_all();
    }
    /// Waits until `count` lines are there.
    std::vector<std::string> lines(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 20s, [&] { return lines_.size() >= count; });
        return lines_;
    }

    std::deque<std::string> statusErrors_;
    int connectFailures_ = 0;
    int restartFailures_ = 0;
    bool neverConnects_ = false;
    std::atomic<bool> alive_{false};

  private:
    mutable std::atomic<std::uint64_t> records_{0};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

SupervisorOptions quick(ReconnectPolicy policy, std::uint64_t periodNs = 100'000) {
    return {policy, 5, 1ms, 1ms, periodNs};
}

using Lines = std::vector<std::string>;

TEST(Supervisor, WatchFollowsTheShortestPeriod) {
    struct Row {
        std::uint64_t periodNs;
        bool data;
    };
    for (const Row& row : {Row{100'000'000, true},
                           {250'000'000, true},
                           {250'000'001, false},
                           {500'000'000, false},
                           {0, false}}) {
        ScriptedMeasurement measurement;
        const Supervisor supervisor(measurement, {ReconnectPolicy::abort, 5, 1000ms, 1000ms, row.periodNs});
        EXPECT_EQ(supervisor.watchesData(), row.data) << row.periodNs;
    }
}

TEST(Supervisor, AbortFailsWithTheReason) {
    {
        ScriptedMeasurement measurement;
        Supervisor supervisor(measurement, quick(ReconnectPolicy::abort));
        supervisor.start();
        EXPECT_EQ(measurement.lines(1), Lines{"failed: connection lost: no DAQ data for 1 ms"});
    }
    ScriptedMeasurement silent;
    silent.statusErrors_ = {"GET_STATUS: no response from slave (t1)"};
    Supervisor watchingStatus(silent, quick(ReconnectPolicy::abort, 0));
    watchingStatus.start();
    EXPECT_EQ(silent.lines(1), Lines{"failed: connection lost: GET_STATUS: no response from slave (t1)"});

    ScriptedMeasurement stopped;
    stopped.statusErrors_ = {"stopped"};
    Supervisor watchingStopped(stopped, quick(ReconnectPolicy::abort, 0));
    watchingStopped.start();
    EXPECT_EQ(stopped.lines(1), Lines{"failed: connection lost: DAQ no longer running in the ECU"});
}

TEST(Supervisor, RetryComesBackAfterFailedAttempts) {
    ScriptedMeasurement measurement;
    measurement.connectFailures_ = 1;
    measurement.restartFailures_ = 1;
    Supervisor supervisor(measurement, quick(ReconnectPolicy::retry));
    supervisor.start();
    EXPECT_EQ(measurement.lines(8),
              (Lines{"reconnecting: connection lost: no DAQ data for 1 ms", "count", "connect", "connect",
                     "restart", "connect", "restart", "measuring: reconnected after 3 attempt(s)"}));
    measurement.alive_ = false;
    const auto lines = measurement.lines(9);
    ASSERT_GE(lines.size(), 9U) << "supervision goes on after a reconnection";
    EXPECT_EQ(lines[8], "reconnecting: connection lost: no DAQ data for 1 ms");
}

TEST(Supervisor, RetryGivesUpAfterItsAttempts) {
    ScriptedMeasurement measurement;
    measurement.neverConnects_ = true;
    Supervisor supervisor(measurement, quick(ReconnectPolicy::retry));
    supervisor.start();
    EXPECT_EQ(measurement.lines(8),
              (Lines{"reconnecting: connection lost: no DAQ data for 1 ms", "count", "connect", "connect",
                     "connect", "connect", "connect", "failed: reconnect failed after 5 attempt(s)"}));
}

TEST(Supervisor, RetryForeverGoesOnUntilStopped) {
    ScriptedMeasurement measurement;
    measurement.neverConnects_ = true;
    Supervisor supervisor(measurement, quick(ReconnectPolicy::retryForever));
    supervisor.start();
    EXPECT_GE(measurement.lines(20).size(), 20U);
    supervisor.stop();
    EXPECT_EQ(measurement.lines(0).back(), "connect") << "a stop changes no state";
}

TEST(Supervisor, StopWakesALongWait) {
    ScriptedMeasurement measurement;
    Supervisor supervisor(measurement, {ReconnectPolicy::abort, 5, 1h, 1h, 0});
    supervisor.start();
    supervisor.stop();
    EXPECT_TRUE(measurement.lines(0).empty());
}

}  // namespace
}  // namespace lm::session
