// One measurement of several ECUs: planned for each, started and stopped for all, on one time base (that of
// the host, on which each ECU's timestamps are laid), in one recording.
//
// Signals are called ECU/NAME, in what is asked for and in plan, records and recording. The lists of all
// stand one behind the other; a record of the second ECU bears its list's number among all.
//
// Threads: as of IMeasured; the sink is called on the receive thread of each ECU, one at a time. Lifetime:
// borrows the group.
#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "session/ecu_group.h"
#include "session/measured.h"
#include "storage/write/recorder.h"

namespace lm::session {

class JointMeasurement final : public IMeasured {
  public:
    explicit JointMeasurement(EcuGroup& group);
    ~JointMeasurement() override;
    JointMeasurement(const JointMeasurement&) = delete;
    JointMeasurement& operator=(const JointMeasurement&) = delete;

    void setListener(ISessionListener* listener) override { listener_.store(listener); }
    std::string ecuName() const override;
    bool identityWarned() const override;
    Result<value::Element> signalElement(std::string_view text) override;
    bool isSignal(const PlannedSignal& signal, const std::string& text) const override;
    /// Of the ECUs that signals, or the configuration when none are given, name; they are open. An ECU of
    /// which nothing is to be measured has no part in it.
    Result<PlanSummary> startMeasurement(const MeasurementOptions& options) override;
    Result<void> stopMeasurement() override;
    void finishRecording() override;
    Result<void> close() override;
    storage::RecordingInfo describeRecording(const std::filesystem::path& directory) const override;
    MeasurementStats statistics() const override;
    /// Failed once an ECU has whose reconnect policy ends the measurement, or all have.
    SessionState state() const override;
    std::vector<Member> members() const override;

  private:
    /// One of those that are measured.
    struct Part final : xcp::IDaqRecordSink {
        Part(JointMeasurement& all, std::size_t number) : joint(all), ecu(number) {}
        void onRecord(const xcp::DaqRecord& record) override;

        JointMeasurement& joint;
        const std::size_t ecu;
        MeasurementOptions options = {};
        std::size_t firstList = 0;
        PlanSummary summary = {};
        std::optional<storage::GroupRange> recording = {};
    };
    /// Tells of which ECU a state is.
    struct Listener final : ISessionListener {
        Listener(JointMeasurement& all, std::size_t number) : joint(all), ecu(number) {}
        void onStateChanged(SessionState state, const std::string& message, const std::string& hint) override;
        void onParameterWritten(const storage::ParameterWrite& write) override;

        JointMeasurement& joint;
        const std::size_t ecu;
    };

    Result<void> share(const MeasurementOptions& options);
    Result<void> addTexts(const std::vector<std::string>& texts,
                          std::vector<std::string> MeasurementOptions::*into);
    Part& partOf(std::size_t ecu);
    Result<void> accept(const MeasurementOptions& options);
    void addPlan(Part& part);
    Result<void> beginRecording(const MeasurementOptions& options);
    Result<void> beginAll();
    void drop();
    std::vector<std::size_t> ecus() const;
    Session& sessionOf(const Part& part) const { return group_.at(part.ecu); }
    const std::string& nameOf(const Part& part) const { return group_.name(part.ecu); }
    PlanSummary summary() const;

    EcuGroup& group_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::atomic<ISessionListener*> listener_{nullptr};

    // Constant while records come.
    std::vector<std::unique_ptr<Part>> parts_;  ///< of the running or the last measurement
    MeasurementPlan plan_;
    xcp::IDaqRecordSink* sink_ = nullptr;
    std::unique_ptr<storage::Recorder> recording_;
    std::int64_t recordingStartNs_ = 0;
    bool running_ = false;

    std::mutex sinkMutex_;  ///< one record at a time
};

}  // namespace lm::session
