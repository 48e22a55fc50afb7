// One ECU: its A2L description, its transport, the XCP master on it, and the state that the user sees.
//
// Threads: create, open, close, read, write and the measurement operations belong to one thread at a time;
// sendText, transportLost, requestStop, state and setListener may be called from any thread.
// Lifetime: the listener and the record sink are borrowed and must outlive the session (or be replaced
// first); so must the adapter of the channel pool.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
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
#include "session/identity.h"
#include "session/joint_reading.h"
#include "session/key_helper.h"
#include "session/master_memory.h"
#include "session/measured.h"
#include "session/measurement_types.h"
#include "session/medium.h"
#include "session/named_objects.h"
#include "session/named_values.h"
#include "session/page_control.h"
#include "session/paged_write.h"
#include "session/return_check.h"
#include "session/session_config.h"
#include "session/session_state.h"
#include "session/sharing.h"
#include "session/value_access.h"
#include "session/values.h"
#include "session/write_rights.h"
#include "storage/format/recording_events.h"
#include "storage/write/recorder.h"
#include "xcp/master.h"

namespace lm::session {

class Measurement;

/// What open() does about an ECU of another software than the A2L's.
enum class OtherSoftware : std::uint8_t {
    asConfigured,  ///< identity.check
    warned,        ///< no refusal: nothing is read whose meaning the A2L tells
    shown,         ///< the command tells of it itself
};

struct SessionOptions {
    bool digest = false;           ///< recordings tell the A2L's SHA-256
    bool a2lOptional = false;      ///< a configuration that names a transport will do
    bool ignoresIdentity = false;  ///< an ECU of another software is read from and written to
    OtherSoftware otherSoftware = OtherSoftware::asConfigured;
    /// May put another medium in the place of the one that the configuration names, which is not opened yet.
    std::function<Result<std::unique_ptr<IMedium>>(std::unique_ptr<IMedium> medium,
                                                   const SessionConfig& config, const StopToken& stop)>
        adoptMedium = {};
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

class Session final : public IValues, public IMeasured, private xcp::IMasterListener {
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

    void setListener(ISessionListener* listener) override { listener_.store(listener); }

    /// Opens the transport and does not connect: the text of a serial line arrives from now on. A serial port
    /// that was lost is opened again. Errors: those of the transport.
    Result<void> openTransport() { return medium_->transport().open(); }
    /// The port of the serial line has gone since it was opened.
    bool transportLost() const { return medium_->lost(); }

    /// Opens the transport (again when its device was lost), connects and reads the ECU's DAQ capabilities
    /// (without which it goes on); it compares the EPK with the A2L's before, and once watchForReset() was
    /// called the parameters of an ECU that comes back. Errors: those of the transport and of CONNECT; with
    /// identity.check "refuse" otherSoftware().
    Result<void> open();

    /// Stops a running measurement, disconnects, closes the transport. Idempotent; takes no longer than the
    /// stop of a measurement and t1. The error is that of the measurement's stop.
    Result<void> close() override;

    /// Remembers what the ECU holds now: a further open() tells when that is lost. A measurement that would
    /// reconnect does so by itself.
    void watchForReset() { watch_.begin(); }

    /// open() of an ECU that ended the session or was away, in the middle of something that writes. Further
    /// errors: checkIdentity()'s, and (permissionDenied) that another software answers than before.
    Result<void> openAgain();

    /// What open() or a reconnection found out about the ECU's software, the latest.
    Identity identity() const { return returns_.identity(); }
    /// Whether open(), a reconnection or a write warned of it.
    bool identityWarned() const override { return identityWarned_ || returns_.sawOtherSoftware(); }
    /// Before anything is written: warns once of an EPK that cannot be read. Errors: otherSoftware(), and
    /// that the ECU has another byte order than the A2L says. write() and writeObject() ask for it
    /// themselves.
    Result<void> checkIdentity();

    std::vector<Result<Reading>> read(std::span<const std::string> names) override;
    WriteOutcome write(std::string_view name, std::string_view text, WriteRights rights,
                       const BeforeWriting& beforeWriting = {}) override;
    const NamedObjects& objects() const override { return objects_; }
    bool canRead(const std::string& name) override { return objects_.exists(name); }
    Result<ObjectReading> readObject(std::string_view name) override;
    ObjectWriting writeObject(const WriteWish& wish, const NamedObjects::Announce& announce) override;
    /// JointReading::run(): many objects in as few packets as their bytes need.
    Result<void> readTogether(std::span<const a2l::Object> objects, const JointReading::Progress& progress,
                              const JointReading::Take& take);

    /// The ECU's, in which whole objects are written; checkIdentity() comes before, noteWrites() after.
    IMemory& objectMemory() { return blocks_; }
    /// What was written in it and read back: from now on these are writes of the session.
    void noteWrites(std::vector<ObjectBytes> changes);
    /// On which pages a set is written in it.
    std::unique_ptr<PagedWrite> pagedWrite() {
        return std::make_unique<PagedWrite>(*master_, pages_, description_);
    }
    /// What else is to be known of an error of it.
    Error explainWrite(const Error& error);

    /// Sends a line of text to the ECU. Errors: those of IMedium::sendText.
    Result<void> sendText(std::string_view line);
    /// What the ECU on a serial line printed and what was sent to it.
    ConsoleLog& consoleLog() { return console_; }

    /// Starts DAQ for the signals; the session is left "connected" with nothing started when it fails.
    /// Errors: those of planMeasurement, of the recording writer and of the DAQ configuration, "measurement
    /// already running", "the slave offers no DAQ".
    Result<PlanSummary> startMeasurement(const MeasurementOptions& options) override;

    // Its two halves, where several ECUs are measured: nothing runs before each of them can.
    /// Plans, and claims the load.
    Result<void> acceptMeasurement(const MeasurementOptions& options);
    const MeasurementPlan& acceptedPlan() const;
    /// With a range of a recording that another one began, and closes after stopMeasurement(); else with that
    /// of the options. The state of the session tells nothing before.
    Result<PlanSummary> beginAccepted(const MeasurementOptions& options,
                                      const std::optional<storage::GroupRange>& recording);
    /// Instead of beginAccepted(), or after its failure.
    void dropAccepted();

    /// Ends supervision, DAQ and recording; see docs/architecture.md for what each state sends. Succeeds when
    /// nothing runs. Errors: the ECU's to the stop command in state "measuring", "write error in DIRECTORY".
    Result<void> stopMeasurement() override;

    /// After stopMeasurement(): waits until what the recording's place wants done with each closed recording
    /// is done.
    void finishRecording() override;

    /// Records the running measurement from now on. Errors: alreadyOpen "DIRECTORY is being recorded to",
    /// notOpen "no measurement runs", those of storage::Recorder::begin().
    Result<void> startRecording(const storage::RecordingPlace& place, std::vector<std::string> commandLine);
    /// Ends the recording; the measurement goes on. Errors: notOpen "nothing is recorded", "write error in
    /// DIRECTORY".
    Result<void> stopRecording();
    /// To who records by itself: all that has been received comes to the sink before it returns, also what is
    /// held back until more of it would tell its time.
    void handOnHeldRecords();
    /// Likewise, by MeasurementOptions::noteTo: the EPK and checksums of the ECU, which it is asked for, and
    /// what is known of its clock.
    void noteWhatRuns();
    void noteClock();
    bool isRecording() const { return running_ && recording_ != nullptr; }
    /// Where the recording that runs goes, empty without one. From any thread.
    std::string recordingDirectory() const;
    /// A remark in the recording that runs: when it was made, on the clock of the records. From any thread
    /// while a measurement runs. Error: notOpen "nothing is recorded".
    Result<std::int64_t> mark(const std::string& text);
    /// A parameter that was written, in the recording that runs, if any. Likewise.
    void noteParameter(storage::ParameterWrite write);

    /// What a recording of the running measurement, beginning now, says about itself and its groups. From
    /// any thread until startMeasurement() is called again.
    storage::RecordingInfo describeRecording(const std::filesystem::path& directory) const override;

    /// What NAME or NAME@EVENT stands for, a number or text. Errors: those of findSignalElements() above one.
    Result<value::Element> signalElement(std::string_view text) override;
    bool isSignal(const PlannedSignal& signal, const std::string& text) const override {
        return isNamed(signal, text, *capabilities_);
    }
    std::vector<Member> members() const override { return {{nullptr, this}}; }

    /// Counters of the running or the last measurement.
    MeasurementStats statistics() const override;

    /// Ends every wait for the ECU at once; running operations fail. Only close() and stopMeasurement() are
    /// of use then. stopMeasurement() takes the request back, also one that comes while it runs.
    void requestStop() { stop_.request(); }
    StopToken stopToken() const { return stop_.token(); }

    /// For whoever lets others send commands to the ECU.
    xcp::Master& master() { return *master_; }
    ISharing* sharing() { return medium_->sharing(); }
    /// Until the result is gone no one else's commands come between those of this session.
    [[nodiscard]] SharedOperation operation() { return SharedOperation(medium_->sharing()); }
    /// Before an object is written other than by write() and writeObject().
    void announceWrite(const ObjectBytes& change);

    /// What `step` makes of the master, once its answers are certainly their commands'.
    template <typename Step>
    auto ask(const Step& step) -> decltype(step(std::declval<xcp::Master&>())) {
        return xcp::inStep(*master_, [&] { return step(*master_); });
    }
    /// The ECU's calibration pages. Before one is changed: checkIdentity().
    PageControl& pages() { return pages_; }
    /// PageControl::remarks() that were not told yet, unless the ECU was silent or a stop is requested.
    std::vector<std::string> pageRemarks();

    SessionState state() const override { return state_.load(); }
    const SessionConfig& config() const { return config_; }
    const a2l::Description& description() const override { return description_; }
    const IMedium& medium() const { return *medium_; }
    /// The configuration's name, else the A2L module's.
    std::string ecuName() const override;
    /// "parameters_0: page 1, the ECU used page 0; ..." of the pages that XCP sees; empty for an A2L without
    /// segments of several pages, of which the ECU is not asked, and for an ECU that does not tell.
    std::string pagesText();
    /// What it calls itself (GET_ID), asked for once; empty when it does not tell.
    const std::string& ecuText();
    /// How it is reached, as files of several ECUs tell them apart.
    const std::string& ecuPlace() const { return medium_->texts().place; }
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
    /// The CAN identifiers of DAQ lists, as far as known; completeDaq() comes before. Errors: the ECU's.
    Result<std::vector<DaqListId>> listIds();

  private:
    Session(SessionConfig config, a2l::Description description, StopSource stop,
            std::unique_ptr<IMedium> medium, SessionOptions options);

    void onEvent(std::uint8_t code, const std::uint8_t* packet, std::size_t length,
                 xcp::ReceiveTime time) override;
    void onServiceRequest(std::uint8_t code, const std::uint8_t* packet, std::size_t length) override;
    void onTransportEvent(const xcp::TransportEvent& event) override;

    void changeState(SessionState state, const std::string& message);
    std::string lossHint() const;
    Result<void> beginRecording(const storage::RecordingPlace& place, std::vector<std::string> commandLine,
                                std::chrono::duration<double> duration);
    Result<void> beginMeasurement(const MeasurementOptions& options,
                                  const std::optional<storage::GroupRange>& recording);
    Result<void> identify();
    Result<void> tellReturn();
    void noteWrite(ObjectBytes change);
    void tellRecording(const std::string& directory);
    BeforeWriting announcing(const BeforeWriting& beforeWriting);
    void askForDaq();
    bool deniesByteOrder() const;
    std::string byteOrderText() const;
    void warnAboutByteOrder() const;
    Error afterConnect(Error error) const;
    Error afterWrite(Error error, std::optional<std::uint32_t> place);
    bool gaveKey(xcp::Resource resource) const;
    LockOutcome unlockOne(xcp::Resource resource, bool isLocked);

    // Constant after construction.
    const SessionConfig config_;
    const SessionOptions options_;
    const a2l::Description description_;
    StopSource stop_;     ///< also of the measurement alone, and then reset
    ConsoleLog console_;  ///< outlives the medium, whose text it takes
    const std::unique_ptr<IMedium> medium_;

    // One thread at a time.
    const std::shared_ptr<KeyUse> keyUse_ = std::make_shared<KeyUse>();
    std::unique_ptr<xcp::Master> master_;
    MasterMemory numbers_;  ///< for values_
    MasterMemory wholes_;   ///< for objects_
    MasterMemory blocks_;   ///< for many objects, one after the other
    NamedValues values_;
    NamedObjects objects_;
    PageControl pages_;
    DaqSource daqSource_;
    SessionWrites writes_;
    ParameterWatch watch_;
    ReturnCheck returns_;
    bool identified_ = false;
    bool identityWarned_ = false;
    std::optional<std::string> ecuText_;
    std::set<std::string> toldRemarks_;  ///< of pages
    std::optional<xcp::DaqCapabilities> capabilities_;
    DaqOrigins daqOrigins_;                                           ///< of the capabilities
    Error noDaq_{ErrorCode::unsupported, "the slave offers no DAQ"};  ///< when there are none
    bool daqCompleted_ = false;                                       ///< since the ECU was connected last
    // The running or the last ones, for their statistics. The measurement borrows the recording.
    mutable std::mutex directoryMutex_;
    std::string directory_;  ///< of the recording that runs, under directoryMutex_
    std::unique_ptr<storage::Recorder> recording_;
    std::vector<std::unique_ptr<storage::Recorder>> recordingsBefore_;  ///< of the same measurement, closed
    std::int64_t recordingStartNs_ = 0;                                 ///< of the first one
    std::unique_ptr<Measurement> measurement_;
    std::atomic<bool> running_{false};
    bool silent_ = false;  ///< the ECU did not answer last: DISCONNECT is not waited for

    std::atomic<SessionState> state_{SessionState::disconnected};
    std::atomic<ISessionListener*> listener_{nullptr};
    std::atomic<std::uint64_t> overloadEvents_{0};  ///< of the running or the last measurement
    std::atomic<std::uint64_t> holes_{0};           ///< places where the line lost packets
    std::atomic<bool> terminationTold_{false};      ///< since the ECU was connected last
};

}  // namespace lm::session
