// One running DAQ measurement: started in the ECU once its plan is accepted, its records handed to a sink and
// to its groups of a recording, supervised, stopped.
//
// Threads: plan(), start() and stop() belong to the owner; records come on the transport's receive thread;
// the supervisor reconnects on its own thread; statistics() may be called from any thread. Lifetime:
// everything in the context, the sink of the options and the recording are borrowed until the object is gone.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "session/measurement_start.h"
#include "session/measurement_types.h"
#include "session/outage_meter.h"
#include "session/recording_switch.h"
#include "session/session_state.h"
#include "session/supervisor.h"
#include "storage/write/recorder.h"
#include "xcp/daq_decoder.h"

namespace lm::session {

class Measurement final : private ISupervised, private xcp::IDaqRecordSink {
  public:
    /// Plans and claims the load; nothing is written to the ECU.
    static Result<std::unique_ptr<Measurement>> plan(MeasurementContext context,
                                                     const MeasurementOptions& options);

    const MeasurementPlan& accepted() const { return plan_; }

    /// What a recording of it holds: its groups, and all about its ECU.
    storage::RecordingInfo recordingInfo(const std::filesystem::path& directory) const {
        return describeRecording(context_, plan_, directory);
    }
    /// From now on records and events also go to `recording`, until it is said otherwise or stop(): then its
    /// owner may close it.
    void recordTo(const storage::GroupRange& recording);
    /// It gets all that has been received, also what was held back until more would tell its time.
    void endRecording();
    void handOnHeld();
    /// To the recording, or to MeasurementOptions::noteTo: what runs in the ECU, which is asked for, and its
    /// clock.
    void noteWhatRuns();
    void noteClock();
    /// An event of now, a line made of the time. False: nothing is recorded. From any thread.
    bool note(const std::function<std::string(std::int64_t timeNs)>& line);

    /// A failure leaves no list running in the ECU.
    Result<void> start(const MeasurementOptions& options);

    /// A measurement that has started must have been stopped.
    ~Measurement() override;
    Measurement(const Measurement&) = delete;
    Measurement& operator=(const Measurement&) = delete;

    /// Requests the stop that the context names, which ends all waits at once; `state` tells the session's
    /// state at the time of the stop (asked for after the supervisor has ended). The result is the ECU's
    /// answer to the stop command, if one was waited for.
    Result<void> stop(const std::function<SessionState()>& state);

    PlanSummary summary() const;
    /// All but what the recording counts.
    MeasurementStats statistics() const;

  private:
    Measurement(MeasurementContext context, AcceptedPlan accepted);

    Result<void> startLists(const xcp::DaqCapabilities& capabilities);
    void removeDecoder();
    void tellMisfit();
    void abandonStart();
    void tellOfEcu(std::int64_t timeNs, const std::string& line);
    void addSilentLists(MeasurementStats& stats) const;
    void keepClock();
    std::optional<xcp::ClockFigures> clock() const;

    void onRecord(const xcp::DaqRecord& record) override;

    std::uint64_t recordsReceived() const override;
    Result<bool> daqRunning() override;
    void settleSamples() override;
    Result<void> reconnect() override;
    Result<std::string> lookAgain() override;
    Result<void> restartDaq() override;
    void countReconnect() override;
    void changeState(SessionState state, const std::string& message) override;

    // Constant once start() has returned.
    MeasurementContext context_;
    const MeasurementPlan plan_;
    const double busLoad_;
    xcp::IDaqRecordSink* sink_ = nullptr;
    RecordingSwitch recording_;
    std::function<void(std::int64_t, const std::string&)> noteTo_;  ///< as of MeasurementOptions

    std::atomic<std::uint64_t> reconnects_{0};
    OutageMeter outages_;
    const std::vector<MediumCounter> countersAtStart_;

    // Under decoderMutex_: replaced by the supervisor at a reconnection while statistics are read.
    mutable std::mutex decoderMutex_;
    std::unique_ptr<xcp::DtoFit> fit_;  ///< none where the ECU told the layout
    std::unique_ptr<xcp::DaqDecoder> decoder_;
    xcp::DaqDecoderCounters totals_;  ///< of the decoders before this one
    bool misfitTold_ = false;
    std::optional<xcp::ClockFigures> clockBefore_;  ///< of the decoders before, the one that saw most of it
    std::vector<bool> delivered_;                   ///< lists that gave them a record

    std::atomic<bool> started_{false};
    std::int64_t clockNotedNs_ = 0;  ///< the supervisor's thread, then the owner's
    bool bitIgnored_ = false;        ///< since the ECU was connected last; the supervisor's thread alone
    std::unique_ptr<Supervisor> supervisor_;
};

}  // namespace lm::session
