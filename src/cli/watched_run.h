// A measurement whose records are looked at: between the measurement and what shows it stand the conditions
// and the takes that they start.
//
// Threads: the main thread; records come on the receive thread, states on any, takes are told on the thread
// that writes them. Lifetime: what is measured, its listener and the sink of the options are borrowed until
// the object is gone, which must outlive the measurement.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "cli/json_writer.h"
#include "cli/test_report.h"
#include "cli/watch_options.h"
#include "session/measured.h"
#include "watch/take_recorder.h"
#include "watch/watcher.h"

namespace lm::cli {

class WatchedRun final : public xcp::IDaqRecordSink,
                         public session::ISessionListener,
                         private watch::ITakeListener {
  public:
    /// Becomes the listener of what is measured, in front of `next`.
    WatchedRun(const WatchPlan& plan, session::IMeasured& session, session::ISessionListener& next);
    ~WatchedRun() override;
    WatchedRun(const WatchedRun&) = delete;
    WatchedRun& operator=(const WatchedRun&) = delete;

    /// Finds the signals that the expressions name. Error: "PLACE: column N: REASON".
    Result<void> resolve();
    /// Lays itself between the measurement and the sink of its options, and asks for the signals.
    void joinTo(session::MeasurementOptions& measurement);

    /// What waits for a trigger, and what is measured for that, for people; with newlines.
    std::string startLine() const;
    /// Tells what is new. True when all takes are recorded.
    bool isOver();

    /// After the last record: closes the takes.
    void finish();

    // After finish().
    /// Verdicts and what there is to say of takes; with newlines.
    std::string lines() const;
    void write(JsonWriter& json) const;
    void addCases(double seconds, std::vector<TestCase>& cases) const;
    bool asWanted() const;
    /// A trigger was waited for in vain.
    bool withoutTake() const;
    /// A take could not be recorded as a whole.
    bool takeFailed() const;
    /// Records of all takes, in their files and not.
    std::pair<std::uint64_t, std::uint64_t> recordedAndDropped() const;
    bool recordsTakes() const { return plan_.recordsTakes(); }

    void onRecord(const xcp::DaqRecord& record) override;
    void onStateChanged(session::SessionState state, const std::string& message,
                        const std::string& hint) override;
    void onEcuStateChanged(const std::string& ecu, session::SessionState state, const std::string& message,
                           const std::string& hint) override;

  private:
    Result<void> bind(const session::MeasurementPlan& plan);
    void onTakeBegun(const watch::Take& take) override;
    void onTakeEnded(const watch::Take& take) override;
    std::string timeText(std::int64_t timeNs) const;
    void takeState(const std::string& ecu, session::SessionState state, const std::string& message);

    WatchPlan plan_;
    session::IMeasured& session_;
    session::ISessionListener& nextListener_;
    xcp::IDaqRecordSink* nextSink_ = nullptr;
    watch::Watcher watcher_;
    std::optional<watch::TakeRecorder> takes_;
    std::vector<storage::CompanionFile> companions_;  ///< in each take
    std::vector<std::string> added_;                  ///< signals that only the expressions name
    std::vector<watch::Verdict> verdicts_;
    std::vector<watch::Take> ended_;
};

}  // namespace lm::cli
