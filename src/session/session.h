// One ECU: its A2L description, its transport, the XCP master on it, and the state that the user sees.
//
// Threads: create, open, close, read, write and the measurement operations belong to one thread at a time;
// sendText, transportLost, requestStop, state and setListener may be called from any thread.
// Lifetime: the listener and the record sink are borrowed and must outlive the session (or be replaced
// first); so must the adapter of the channel pool.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/description.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "session/channel_pool.h"
#include "session/console_log.h"
#include "session/daq_source.h"
#include "session/measurement_types.h"
#include "session/medium.h"
#include "session/named_objects.h"
#include "session/session_config.h"
#include "session/session_state.h"
#include "session/value_access.h"
#include "session/write_rights.h"
#include "storage/write/recorder.h"
#include "xcp/master.h"

namespace lm::session {

class Measurement;

struct SessionOptions {
    bool digest = false;       ///< recordings tell the A2L's SHA-256
    bool a2lOptional = false;  ///< a configuration that names a transport will do
};

/// "no A2L file configured"
Error noA2lConfigured();

/// Logs what was left out of a description or is odd about it; what nobody misses for `-v` only.
void logWarnings(const a2l::Description& description);

/// What became of a resource that seed & key may protect.
struct LockOutcome {
    enum class State : std::uint8_t { open, unlocked, locked };

    xcp::Resource resource = xcp::Resource::calPag;
    State state = State::open;
    std::optional<Error> error = std::nullopt;  ///< why it stayed locked
};

class Session final : private xcp::IMasterListener {
  public:
    /// Called with every warning about the A2L, beside the log.
    using WarningCallback = std::function<void(const std::string&)>;

    /// Loads the A2L and chooses the transport, which opens a CAN channel of the pool; nothing is sent.
    /// `stop` ends the reading of the A2L, and later all that requestStop() ends. Errors: noA2lConfigured(),
    /// those of a2l::load, chooseTransport and StopSource::create.
    static Result<std::unique_ptr<Session>> create(SessionConfig config, const WarningCallback& callback = {},
                                                   ChannelPool& pool = ChannelPool::ofThisMachine(),
                                                   const StopToken& stop = {}, SessionOptions options = {});

    ~Session() override;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void setListener(ISessionListener* listener) { listener_.store(listener); }

    /// Opens the transport and does not connect: the text of a serial line arrives from now on. A serial port
    /// that was lost is opened again. Errors: those of the transport.
    Result<void> openTransport() { return medium_->transport().open(); }
    /// The port of the serial line has gone since it was opened.
    bool transportLost() const { return medium_->lost(); }

    /// Opens the transport (again when its device was lost), connects and reads the ECU's DAQ capabilities
    /// (without which it goes on). Errors: those of the transport and of CONNECT.
    Result<void> open();

    /// Stops a running measurement, disconnects, closes the transport. Idempotent; takes no longer than the
    /// stop of a measurement and t1. The error is that of the measurement's stop.
    Result<void> close();

    /// ValueAccess::read() of what the names stand for. Further errors of a value: a2l::findScalar's.
    std::vector<Result<Reading>> read(std::span<const std::string> names);

    /// ValueAccess::write() of a number or verbal text. Further errors: those of a2l::findScalar and
    /// value::parseText, "NAME is not writable", "NAME is a measurement without READ_WRITE", "NAME: BIT_MASK
    /// 0x0 leaves no bit that may be written".
    WriteOutcome write(std::string_view name, std::string_view text, WriteRights rights);

    /// Which names are scalars, and which have dependents; readObject() and writeObject() serve all others.
    const NamedObjects& objects() const { return objects_; }
    /// NamedObjects::read().
    Result<ObjectReading> readObject(std::string_view name);
    /// NamedObjects::write().
    ObjectWriting writeObject(const WriteWish& wish, const NamedObjects::Announce& announce);

    /// Sends a line of text to the ECU. Errors: those of IMedium::sendText.
    Result<void> sendText(std::string_view line);
    /// What the ECU on a serial line printed and what was sent to it.
    ConsoleLog& consoleLog() { return console_; }

    /// Starts DAQ for the signals; the session is left "connected" with nothing started when it fails.
    /// Errors: those of planMeasurement, of the recording writer and of the DAQ configuration, "measurement
    /// already running", "the slave offers no DAQ".
    Result<PlanSummary> startMeasurement(const MeasurementOptions& options);

    /// Ends supervision, DAQ and recording; see docs/architecture.md for what each state sends. Succeeds when
    /// nothing runs. Errors: the ECU's to the stop command in state "measuring", "write error in DIRECTORY".
    Result<void> stopMeasurement();

    /// Counters of the running or the last measurement.
    MeasurementStats statistics() const;

    /// Ends every wait for the ECU at once; running operations fail. Only close() and stopMeasurement() are
    /// of use then. stopMeasurement() takes the request back, also one that comes while it runs.
    void requestStop() { stop_.request(); }
    StopToken stopToken() const { return stop_.token(); }

    SessionState state() const { return state_.load(); }
    const SessionConfig& config() const { return config_; }
    const a2l::Description& description() const { return description_; }
    const IMedium& medium() const { return *medium_; }
    /// The configuration's name, else the A2L module's.
    std::string ecuName() const;
    xcp::ConnectInfo connectInfo() const { return master_->connectInfo(); }
    Result<xcp::SlaveStatus> status();
    /// Tries to unlock these resources, or with none given all that the ECU offers. Errors: status()'s.
    Result<std::vector<LockOutcome>> unlock(std::span<const xcp::Resource> resources);
    /// Absent before open() and for an ECU without DAQ.
    const std::optional<xcp::DaqCapabilities>& daqCapabilities() const { return capabilities_; }
    const DaqOrigins& daqOrigins() const { return daqOrigins_; }
    /// Asks for the static and predefined lists, once per connection, and warns of what the A2L says
    /// otherwise. Errors: those of DaqSource::askLists().
    Result<void> completeDaq();

  private:
    Session(SessionConfig config, a2l::Description description, StopSource stop,
            std::unique_ptr<IMedium> medium);

    void onEvent(std::uint8_t code, const std::uint8_t* packet, std::size_t length,
                 xcp::ReceiveTime time) override;
    void onServiceRequest(std::uint8_t code, const std::uint8_t* packet, std::size_t length) override;
    void onTransportEvent(const xcp::TransportEvent& event) override;

    void changeState(SessionState state, const std::string& message);
    std::string lossHint() const;
    Result<a2l::Object> findScalar(std::string_view name);
    Result<void> beginRecording(const MeasurementOptions& options);
    Result<void> beginMeasurement(const MeasurementOptions& options);
    void askForDaq();
    void warnAboutByteOrder() const;
    Error afterConnect(Error error) const;
    LockOutcome unlockOne(xcp::Resource resource, bool isLocked);

    // Constant after construction.
    const SessionConfig config_;
    const a2l::Description description_;
    StopSource stop_;     ///< also of the measurement alone, and then reset
    ConsoleLog console_;  ///< outlives the medium, whose text it takes
    const std::unique_ptr<IMedium> medium_;

    // One thread at a time.
    std::unique_ptr<xcp::Master> master_;
    ValueAccess values_;
    NamedObjects objects_;
    DaqSource daqSource_;
    std::optional<xcp::DaqCapabilities> capabilities_;
    DaqOrigins daqOrigins_;                                           ///< of the capabilities
    Error noDaq_{ErrorCode::unsupported, "the slave offers no DAQ"};  ///< when there are none
    bool daqCompleted_ = false;                                       ///< since the ECU was connected last
    // The running or the last ones, for their statistics. The measurement borrows the recording.
    std::unique_ptr<storage::Recorder> recording_;
    std::int64_t recordingStartNs_ = 0;
    std::unique_ptr<Measurement> measurement_;
    bool running_ = false;
    bool silent_ = false;  ///< the ECU did not answer last: DISCONNECT is not waited for

    std::atomic<SessionState> state_{SessionState::disconnected};
    std::atomic<ISessionListener*> listener_{nullptr};
    std::atomic<std::uint64_t> overloadEvents_{0};  ///< of the running or the last measurement
    std::atomic<std::uint64_t> holes_{0};           ///< places where the line lost packets
    std::size_t unknownNames_ = 0;                  ///< asked for so far
    std::atomic<bool> terminationTold_{false};      ///< since the ECU was connected last
};

}  // namespace lm::session
