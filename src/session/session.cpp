#include "session/session.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "a2l/object.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "session/connect_patience.h"
#include "session/key_helper.h"
#include "session/measurement.h"
#include "session/transport_choice.h"
#include "value/typed_text.h"

namespace lm::session {
namespace {

/// What stands behind "RESOURCE is locked (seed and key)".
std::string keyHint(const a2l::XcpInterface& interface) {
    std::string hint =
        ": \"security\" in the configuration names what computes the key (docs/seed-and-key.md)";
    if (!interface.protocolLayer || interface.protocolLayer->keyLibrary.empty()) return hint;
    return hint + "; the A2L calls its library " + printableText(interface.protocolLayer->keyLibrary);
}

xcp::MasterOptions masterOptions(const SessionConfig& whole, const a2l::XcpInterface& interface,
                                 const StopToken& stop) {
    const SessionConfig::Xcp& config = whole.xcp;
    xcp::MasterOptions options;
    if (whole.security.configured()) options.keys = KeyHelper(whole.security, stop);
    options.keyHint = keyHint(interface);
    std::array<std::uint64_t*, 7> fields = {&options.t1, &options.t2, &options.t3, &options.t4,
                                            &options.t5, &options.t6, &options.t7};
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (config.timeoutsMs) {
            *fields[i] = (*config.timeoutsMs)[i];
        } else if (interface.protocolLayer && interface.protocolLayer->timeoutsMs[i] != 0) {
            *fields[i] = interface.protocolLayer->timeoutsMs[i];
        }
    }
    constexpr std::uint32_t kMost = std::numeric_limits<std::int32_t>::max();
    options.connectAttempts = static_cast<std::int32_t>(std::min(config.connectAttempts, kMost));
    options.useShortUpload = config.useShortUpload;
    options.ignoreDaqRunningBit = config.overrides.ignoreDaqRunningBit;
    options.overrides = {config.overrides.granularity, config.overrides.byteOrder, config.overrides.maxDto};
    if (interface.protocolLayer) {
        const auto& offered = interface.protocolLayer->optionalCommands;
        options.offersWriteDaqMultiple =
            std::find(offered.begin(), offered.end(), "WRITE_DAQ_MULTIPLE") != offered.end();
    }
    return options;
}

/// An A2L that names optional commands names all there are.
bool modifiesBits(const SessionConfig::Xcp& config, const a2l::XcpInterface& interface) {
    if (!config.modifyBits) return false;
    const std::vector<std::string> none;
    const auto& offered = interface.protocolLayer ? interface.protocolLayer->optionalCommands : none;
    const bool isOffered =
        offered.empty() || std::find(offered.begin(), offered.end(), "MODIFY_BITS") != offered.end();
    if (!isOffered) log::info("xcp.modifyBits: the A2L does not name MODIFY_BITS among the commands");
    return isOffered;
}

bool namesTransport(const SessionConfig& config) {
    return !config.can.interface.empty() || !config.udp.host.empty() || !config.serial.port.empty();
}

}  // namespace

Error noA2lConfigured() {
    Error error{ErrorCode::invalidArgument, "no A2L file configured"};
    error.hint = "--a2l FILE names it, or \"a2l\" in a configuration (-c)";
    return error;
}

void logWarnings(const a2l::Description& description) {
    for (const std::string& warning : description.warnings)
        log::warn("A2L: {}", warning);
    for (const std::string& note : description.notes)
        log::info("A2L: {}", note);
}

Result<std::unique_ptr<Session>> Session::create(SessionConfig config, const WarningCallback& callback,
                                                 ChannelPool& pool, const StopToken& stop,
                                                 SessionOptions options) {
    const bool isDescribed = !config.a2l.empty();
    if (!isDescribed && !(options.a2lOptional && namesTransport(config))) return noA2lConfigured();
    auto description = isDescribed ? a2l::load(config.a2l, stop, options.digest)
                                   : Result<a2l::Description>(a2l::Description());
    if (!description.ok()) return description.error();
    logWarnings(description.value());
    if (callback) {
        for (const std::string& warning : description.value().warnings)
            callback(warning);
    }
    if (description.value().xcp.isCcpOnly())
        log::warn("A2L: the file describes an ECU that speaks CCP, not XCP (ASAP1B_CCP)");
    auto own = StopSource::create(stop);
    if (!own.ok()) return own.error();
    auto medium = chooseTransport(config, description.value().xcp, pool, own.value().token());
    if (!medium.ok()) return medium.error();
    a2l::XcpInterface& interface = description.value().xcp;
    if (const auto* described = describedMedium(config, interface))
        interface.overrule(a2l::XcpOfMedium(*described));  // a copy: it is part of what changes
    return std::unique_ptr<Session>(new Session(std::move(config), std::move(description).value(),
                                                std::move(own).value(), std::move(medium).value()));
}

Session::Session(SessionConfig config, a2l::Description description, StopSource stop,
                 std::unique_ptr<IMedium> medium)
    : config_(std::move(config)),
      description_(std::move(description)),
      stop_(std::move(stop)),
      medium_(std::move(medium)),
      master_(std::make_unique<xcp::Master>(
          medium_->transport(), masterOptions(config_, description_.xcp, stop_.token()), stop_.token())),
      values_(*master_, stop_.token(), modifiesBits(config_.xcp, description_.xcp)),
      objects_(description_, *master_, stop_.token()),
      daqSource_(*master_, config_, description_.xcp) {
    master_->setListener(this);
    medium_->setTextSink(&console_);
}

Session::~Session() {
    const auto closed = close();
    if (!closed.ok()) log::warn("{}", closed.error().text());
    measurement_.reset();
    master_->setListener(nullptr);
}

Result<void> Session::open() {
    const auto connected = connectPatiently(*medium_, *master_, config_.xcp.connectTimeout, stopToken());
    if (!connected.ok()) {
        Error error = connected.error();
        if (error.code == ErrorCode::timeout) error.hint = medium_->texts().silence;
        return error;
    }
    askForDaq();
    warnAboutByteOrder();
    silent_ = false;
    changeState(SessionState::connected, "");
    return {};
}

void Session::askForDaq() {
    capabilities_.reset();
    noDaq_ = {ErrorCode::unsupported, "the slave offers no DAQ"};
    daqCompleted_ = false;
    if (!master_->connectInfo().offersDaq()) return;
    xcp::DaqCapabilities capabilities;
    const auto origins = daqSource_.ask(capabilities);
    if (origins.ok()) {
        capabilities_ = std::move(capabilities);
        daqOrigins_ = origins.value();
        return;
    }
    if (stopToken().requested()) return;
    const Error& error = origins.error();
    noDaq_.hint = error.hint.empty() ? error.text() : error.text() + "; " + error.hint;
    log::warn("DAQ capabilities not available: {}", error.text());
    if (!error.hint.empty()) log::warn("{}", error.hint);
}

Result<void> Session::completeDaq() {
    if (!capabilities_ || daqCompleted_) return {};
    if (auto listed = daqSource_.askLists(*capabilities_, daqOrigins_); !listed.ok()) return listed;
    daqCompleted_ = true;
    for (const std::string& warning :
         {daqSource_.contradiction(*capabilities_, daqOrigins_), daqSource_.advice(daqOrigins_)})
        if (!warning.empty()) log::warn("{}", warning);
    if (config_.daq.source == DaqTold::a2l && !description_.xcp.daq)
        log::warn("daq.source is \"a2l\", and the A2L has no DAQ block: the ECU was asked");
    log::info("DAQ: configuration from {}, resolution {}, events {}, lists {}",
              originName(daqOrigins_.configuration), originName(daqOrigins_.resolution),
              originName(daqOrigins_.events), originName(daqOrigins_.lists));
    return {};
}

void Session::warnAboutByteOrder() const {
    const auto& layer = description_.xcp.protocolLayer;
    const std::optional<ByteOrder> described =
        layer && layer->byteOrder ? layer->byteOrder : description_.byteOrder;
    const ByteOrder actual = master_->connectInfo().byteOrder();
    if (!described || *described == actual) return;
    log::warn("the ECU says that its byte order is {}, the A2L says otherwise: values may be wrong",
              actual == ByteOrder::bigEndian ? "Motorola" : "Intel");
}

Result<void> Session::close() {
    Result<void> result = stopMeasurement();
    if (master_->connected()) {
        // An ECU that did not answer the stop, or was lost before, is not waited for a second time.
        const auto disconnected = silent_ ? master_->disconnectWithoutWaiting() : master_->disconnectOnce();
        if (!disconnected.ok()) log::info("{}", disconnected.error().text());
    }
    medium_->transport().close();
    if (state() != SessionState::disconnected) changeState(SessionState::disconnected, "");
    return result;
}

Result<xcp::SlaveStatus> Session::status() {
    return xcp::inStep(*master_, [this] { return master_->getStatus(); });
}

Result<std::vector<LockOutcome>> Session::unlock(std::span<const xcp::Resource> resources) {
    const auto before = status();
    if (!before.ok()) return afterConnect(before.error());
    std::vector<LockOutcome> outcomes;
    for (const xcp::Resource resource : xcp::kResources) {
        const bool named = std::find(resources.begin(), resources.end(), resource) != resources.end();
        const bool locked = before.value().isLocked(resource);
        const bool offered = (connectInfo().resource & static_cast<std::uint8_t>(resource)) != 0 || locked;
        if (resources.empty() ? !offered : !named) continue;
        outcomes.push_back(unlockOne(resource, locked));
    }
    return outcomes;
}

/// Some ECUs do not tell what is locked: where there is a key, the answer to GET_SEED counts.
LockOutcome Session::unlockOne(xcp::Resource resource, bool isLocked) {
    using State = LockOutcome::State;
    if (!isLocked && !config_.security.configured()) return {resource};
    bool opened = isLocked;
    const auto done = xcp::inStep(*master_, [&] {
        auto unlocked = master_->unlock(resource);
        opened = opened || (unlocked.ok() && unlocked.value() == xcp::Unlocking::opened);
        return unlocked;
    });
    if (done.ok()) return {resource, opened ? State::unlocked : State::open};
    const std::int32_t code = done.error().detail;
    if (!isLocked && (code == xcp::kErrCmdUnknown || code == xcp::kErrOutOfRange)) return {resource};
    return {resource, State::locked, afterConnect(done.error())};
}

/// With a hint where an ECU that had answered CONNECT is silent.
Error Session::afterConnect(Error error) const {
    if (error.code != ErrorCode::timeout || !error.hint.empty()) return error;
    error.hint = "the ECU (" + medium_->texts().description +
                 ") answered CONNECT: it went away since, or another master has connected to it (one ECU "
                 "serves one master, the last)";
    return error;
}

/// The ECU waits meanwhile: the hints of a long list of names that are all unknown take no time of note.
Result<a2l::Object> Session::findScalar(std::string_view name) {
    constexpr std::size_t kMostExplained = 10;
    auto object = a2l::findScalar(description_, name, unknownNames_ < kMostExplained);
    if (!object && object.error().code == ErrorCode::notFound) ++unknownNames_;
    return object;
}

std::vector<Result<Reading>> Session::read(std::span<const std::string> names) {
    auto outcome = values_.read(names.size(), [&](std::size_t i) -> Result<value::Element> {
        const auto object = findScalar(names[i]);
        if (!object.ok()) return object.error();
        return object.value().element();
    });
    if (!outcome.confirmed) silent_ = true;
    for (Result<Reading>& value : outcome.values) {
        if (!value.ok()) value = afterConnect(value.error());
    }
    return std::move(outcome.values);
}

WriteOutcome Session::write(std::string_view name, std::string_view text, WriteRights rights) {
    auto object = findScalar(name);
    if (!object.ok()) return {object.error()};
    if (auto allowed = checkWritable(object.value(), rights); !allowed.ok()) return {allowed.error()};
    if (rights.extendedLimits) a2l::takeExtendedLimits(object.value());
    const value::Element element = object.value().element();
    const auto typed = value::parseText(element, text);
    logAssumptions(object.value());
    if (typed.ok()) {
        auto outcome = values_.write(element, typed.value());
        if (!outcome.value.ok()) outcome.value = afterConnect(outcome.value.error());
        if (outcome.value.ok()) warnBeyondLimits(element, typed.value());
        return outcome;
    }
    // That an ECU cannot be read counts more than a slip of the pen.
    const auto current = values_.read(element);
    return {current.ok() ? typed.error() : afterConnect(current.error())};
}

Result<ObjectReading> Session::readObject(std::string_view name) {
    auto reading = objects_.read(name);
    if (reading.ok()) return reading;
    if (reading.error().code == ErrorCode::timeout) silent_ = true;
    return afterConnect(reading.error());
}

ObjectWriting Session::writeObject(const WriteWish& wish, const NamedObjects::Announce& announce) {
    auto writing = objects_.write(wish, announce);
    if (writing.value.ok()) return writing;
    if (writing.value.error().code == ErrorCode::timeout) silent_ = true;
    writing.value = afterConnect(writing.value.error());
    return writing;
}

Result<void> Session::sendText(std::string_view line) {
    return console_.addSent(line, [this, line] { return medium_->sendText(line); });
}

Result<PlanSummary> Session::startMeasurement(const MeasurementOptions& options) {
    if (running_) return Error{ErrorCode::alreadyOpen, "measurement already running"};
    if (!capabilities_) return noDaq_;
    if (auto completed = completeDaq(); !completed.ok()) return afterConnect(completed.error());
    measurement_.reset();
    overloadEvents_ = 0;
    recording_.reset();
    auto planned = Measurement::plan(
        {config_, description_, *medium_, *master_, stop_, *capabilities_, daqSource_, holes_, ecuName(),
         [this](SessionState state, const std::string& message) { changeState(state, message); }},
        options);
    if (!planned.ok()) return planned.error();
    measurement_ = std::move(planned).value();
    if (const auto begun = beginMeasurement(options); !begun.ok()) {
        measurement_.reset();
        recording_.reset();
        return afterConnect(begun.error());
    }
    running_ = true;
    return measurement_->summary();
}

/// With its recording, of which a failure leaves no file that it made.
Result<void> Session::beginMeasurement(const MeasurementOptions& options) {
    if (!options.recordDirectory.empty()) {
        if (auto begun = beginRecording(options); !begun.ok()) return begun;
    }
    auto started = measurement_->start(options);
    if (started.ok()) return started;
    if (recording_) {
        const auto removed = recording_->discard();
        if (!removed.ok()) log::warn("{}", removed.error().text());
    }
    if (state() == SessionState::measuring) changeState(SessionState::connected, "");
    return started;
}

Result<void> Session::beginRecording(const MeasurementOptions& options) {
    storage::RecordingInfo info = measurement_->recordingInfo(options.recordDirectory);
    recordingStartNs_ = info.startHostNs;
    std::vector<storage::GroupInfo> groups = std::exchange(info.groups, {});
    recording_ = std::make_unique<storage::Recorder>(std::move(info));
    measurement_->recordTo(recording_->add(std::move(groups)));
    return recording_->begin(options.recordDirectory, options.duration);
}

Result<void> Session::stopMeasurement() {
    if (!running_) return {};
    running_ = false;
    auto stopped = measurement_->stop([this] { return state(); });
    auto recorded = recording_ ? recording_->close() : Result<void>();
    silent_ = state() != SessionState::measuring || !stopped.ok();
    stop_.reset();
    if (state() == SessionState::measuring) changeState(SessionState::connected, "");
    if (stopped.ok()) return recorded;
    if (!recorded.ok()) log::warn("{}", recorded.error().text());
    return afterConnect(stopped.error());
}

MeasurementStats Session::statistics() const {
    if (!measurement_) return {};
    MeasurementStats stats = measurement_->statistics();
    if (recording_) {
        stats.recording = true;
        stats.recordingStartNs = recordingStartNs_;
        stats.recorded = recording_->recordsWritten();
        stats.recordedDropped = recording_->recordsDropped();
    }
    // An ECU that tells overloads in both ways means the same ones; some only do it the way they do not say.
    stats.overloads = std::max(stats.overloads, overloadEvents_.load());
    return stats;
}

std::string Session::ecuName() const {
    return config_.name.empty() ? std::string(description_.moduleName) : config_.name;
}

void Session::changeState(SessionState state, const std::string& message) {
    const SessionState before = state_.exchange(state);
    const bool lost = before == SessionState::measuring &&
                      (state == SessionState::reconnecting || state == SessionState::failed);
    if (state == SessionState::connected || state == SessionState::measuring) terminationTold_ = false;
    if (!message.empty()) log::info("session: {} - {}", sessionStateName(state), message);
    if (ISessionListener* listener = listener_.load()) {
        listener->onStateChanged(state, message, lost ? lossHint() : "");
    }
}

/// Why the connection may have been lost: what is known, else all that may be.
std::string Session::lossHint() const {
    if (terminationTold_) {
        return "the ECU itself ended the session (EV_SESSION_TERMINATED): it answers again after a new "
               "CONNECT";
    }
    if (medium_->lost()) return "the device is gone: a plug was pulled or an adapter was switched off";
    return "the ECU is off or out of reach, has stopped the measurement, or another master has connected to "
           "it (one ECU serves one master, the last)";
}

void Session::onEvent(std::uint8_t code, const std::uint8_t* /*packet*/, std::size_t /*length*/,
                      xcp::ReceiveTime /*time*/) {
    if (code == xcp::kEvDaqOverload) ++overloadEvents_;
    if (code == xcp::kEvSessionTerminated && !terminationTold_.exchange(true)) {
        log::warn("the ECU ended the session (EV_SESSION_TERMINATED)");
    }
    log::info("XCP event {}", xcp::eventName(code));
}

void Session::onServiceRequest(std::uint8_t code, const std::uint8_t* /*packet*/, std::size_t length) {
    log::debug("XCP service request 0x{:02X}, {} bytes", code, length);
}

void Session::onTransportEvent(const xcp::TransportEvent& event) {
    if (medium_->report(event)) ++holes_;
}

}  // namespace lm::session
