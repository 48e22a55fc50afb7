// What `measure` and `wait` work on: one ECU, or several on one time base.
//
// Threads: one thread at a time; statistics(), state() and describeRecording() from any. Lifetime: the
// listener and what the options of a measurement name are borrowed until it has been stopped.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "session/measurement_types.h"
#include "session/session_state.h"
#include "storage/format/recording_info.h"
#include "value/element.h"

namespace lm::session {

class Session;

class IMeasured {
  public:
    virtual ~IMeasured() = default;

    virtual void setListener(ISessionListener* listener) = 0;
    /// "engine", of several "engine, gearbox".
    virtual std::string ecuName() const = 0;
    virtual bool identityWarned() const = 0;

    /// What NAME or NAME@EVENT stands for, a number or text. Errors: those of findSignalElements() above one.
    virtual Result<value::Element> signalElement(std::string_view text) = 0;
    /// Whether a planned signal is the one that NAME or NAME@EVENT names.
    virtual bool isSignal(const PlannedSignal& signal, const std::string& text) const = 0;

    /// Starts DAQ for the signals; what is measured is left "connected" with nothing started when it fails.
    virtual Result<PlanSummary> startMeasurement(const MeasurementOptions& options) = 0;
    /// Ends supervision, DAQ and recording. Succeeds when nothing runs.
    virtual Result<void> stopMeasurement() = 0;
    /// After stopMeasurement(): waits until what the recording's place wants done with each closed recording
    /// is done.
    virtual void finishRecording() = 0;
    /// Disconnects; stops before what still runs.
    virtual Result<void> close() = 0;

    /// What a recording of the running measurement, beginning now, says about itself and its groups. From
    /// any thread until startMeasurement() is called again.
    virtual storage::RecordingInfo describeRecording(const std::filesystem::path& directory) const = 0;
    /// Counters of the running or the last measurement.
    virtual MeasurementStats statistics() const = 0;
    virtual SessionState state() const = 0;

    struct Member {
        const std::string* name;  ///< none where there is one ECU
        const Session* session;
    };
    virtual std::vector<Member> members() const = 0;
};

}  // namespace lm::session
