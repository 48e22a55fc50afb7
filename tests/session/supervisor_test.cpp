#include "session/supervisor.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include <gtest/gtest.h>

namespace lm::session {
namespace {

using namespace std::chrono_literals;

/// A measurement whose answers are scripted; what the supervisor does is written down as lines.
class ScriptedMeasurement final : public ISupervised {
  public:
    std::uint64_t recordsReceived() const override { return alive_ ? ++records_ : records_.load(); }

    Result<bool> daqRunning() override {
        if (statusError_ == "stopped") return false;
        if (statusError_.empty()) return true;
        return Error{ErrorCode::timeout, statusError_};
    }
    Result<void> reconnect() override {
        note("connect");
        if (connectFailures_-- > 0) return Error{ErrorCode::timeout, "no answer"};
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
        lines_ += line + "; ";
        ++count_;
        changed_.notify_all();
    }
    /// Waits until `count` lines are there.
    std::string lines(std::ptrdiff_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 20s, [&] { return count_ >= count; });
        return lines_;
    }

    std::string statusError_;
    int connectFailures_ = 0;
    int restartFailures_ = 0;
    std::atomic<bool> alive_{false};

  private:
    mutable std::atomic<std::uint64_t> records_{0};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string lines_;
    std::ptrdiff_t count_ = 0;
};

TEST(Supervisor, WatchFollowsTheShortestPeriod) {
    const std::pair<std::uint64_t, bool> rows[] = {
        {100'000'000, true}, {250'000'000, true}, {250'000'001, false}, {0, false}};
    for (const auto& row : rows) {
        ScriptedMeasurement measurement;
        const Supervisor supervisor(measurement, {ReconnectPolicy::abort, 5, 1000ms, 1000ms, row.first});
        EXPECT_EQ(supervisor.watchesData(), row.second) << row.first;
    }
}

TEST(Supervisor, FollowsItsPolicyToTheEnd) {
    const std::string lost = "connection lost: no DAQ data for 1 ms; ";
    const struct {
        ReconnectPolicy policy;
        std::uint64_t periodNs;  // 0 watches the status
        const char* statusError;
        int connectFailures;
        int restartFailures;
        std::string lines;
    } rows[] = {
        {ReconnectPolicy::abort, 100'000, "", 0, 0, "failed: " + lost},
        {ReconnectPolicy::abort, 0, "GET_STATUS: no response from slave (t1)", 0, 0,
         "failed: connection lost: GET_STATUS: no response from slave (t1); "},
        {ReconnectPolicy::abort, 0, "stopped", 0, 0,
         "failed: connection lost: DAQ no longer running in the ECU; "},
        {ReconnectPolicy::retry, 100'000, "", 1, 1,
         "reconnecting: " + lost +
             "count; connect; connect; restart; connect; restart; "
             "measuring: reconnected after 3 attempt(s); "},
        {ReconnectPolicy::retry, 100'000, "", 99, 0,
         "reconnecting: " + lost +
             "count; connect; connect; connect; connect; connect; "
             "failed: reconnect failed after 5 attempt(s); "},
        {ReconnectPolicy::retryForever, 100'000, "", 5, 0,
         "reconnecting: " + lost +
             "count; connect; connect; connect; connect; connect; connect; restart; "
             "measuring: reconnected after 6 attempt(s); "},
    };
    for (const auto& row : rows) {
        ScriptedMeasurement measurement;
        measurement.statusError_ = row.statusError;
        measurement.connectFailures_ = row.connectFailures;
        measurement.restartFailures_ = row.restartFailures;
        Supervisor supervisor(measurement, {row.policy, 5, 1ms, 1ms, row.periodNs});
        ASSERT_TRUE(supervisor.start().ok());
        const auto count = std::count(row.lines.begin(), row.lines.end(), ';');
        EXPECT_EQ(measurement.lines(count), row.lines);
        if (!measurement.alive_) continue;
        measurement.alive_ = false;
        EXPECT_EQ(measurement.lines(count + 1).find(row.lines + "reconnecting: " + lost), 0U)
            << "supervision goes on after a reconnection";
    }
}

TEST(Supervisor, AStopChangesNoState) {
    ScriptedMeasurement quiet;
    Supervisor waiting(quiet, {ReconnectPolicy::abort, 5, 1h, 1h, 0});
    ASSERT_TRUE(waiting.start().ok());
    waiting.stop();
    EXPECT_EQ(quiet.lines(0), "");

    ScriptedMeasurement lost;
    lost.connectFailures_ = 1'000'000;
    Supervisor reconnecting(lost, {ReconnectPolicy::retryForever, 5, 1ms, 1ms, 100'000});
    ASSERT_TRUE(reconnecting.start().ok());
    lost.lines(20);
    reconnecting.stop();
    EXPECT_TRUE(lost.lines(20).ends_with("connect; connect; "));
}

}  // namespace
}  // namespace lm::session
