#include "session/session.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "a2l/object.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "session/connect_patience.h"
#include "session/key_helper.h"
#include "session/masked_write.h"
#include "session/measurement.h"
#include "session/signal_choice.h"
#include "session/signal_elements.h"
#include "session/transport_choice.h"

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
                                 const StopToken& stop, const std::shared_ptr<KeyUse>& use) {
    const SessionConfig::Xcp& config = whole.xcp;
    xcp::MasterOptions options;
    if (whole.security.configured()) {
        // Who asks for a key after a stop does so for the last words, which nothing but a limit may end.
        options.keys = [usual = KeyHelper(whole.security, stop, use),
                        last = KeyHelper(whole.security, StopToken(), use),
                        stop](xcp::Resource resource, std::span<const std::uint8_t> seed) {
            return stop.requested() ? last(resource, seed) : usual(resource, seed);
        };
    }
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
        const auto isOffered = [&offered](std::string_view command) {
            return std::find(offered.begin(), offered.end(), command) != offered.end();
        };
        options.offersWriteDaqMultiple = isOffered("WRITE_DAQ_MULTIPLE");
        if (isOffered("DOWNLOAD_NEXT")) options.writeBlocks = interface.protocolLayer->writeBlocks;
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
    if (medium.ok() && options.adoptMedium)
        medium = options.adoptMedium(std::move(medium).value(), config, own.value().token());
    if (!medium.ok()) return medium.error();
    a2l::XcpInterface& interface = description.value().xcp;
    if (const auto* described = describedMedium(config, interface))
        interface.overrule(a2l::XcpOfMedium(*described));  // a copy: it is part of what changes
    return std::unique_ptr<Session>(new Session(std::move(config), std::move(description).value(),
                                                std::move(own).value(), std::move(medium).value(),
                                                std::move(options)));
}

Session::Session(SessionConfig config, a2l::Description description, StopSource stop,
                 std::unique_ptr<IMedium> medium, SessionOptions options)
    : config_(std::move(config)),
      options_(std::move(options)),
      description_(std::move(description)),
      stop_(std::move(stop)),
      medium_(std::move(medium)),
      master_(std::make_unique<xcp::Master>(medium_->transport(),
                                            masterOptions(config_, description_.xcp, stop_.token(), keyUse_),
                                            stop_.token())),
      numbers_(*master_, {.modifiesBits = modifiesBits(config_.xcp, description_.xcp)}),
      wholes_(*master_, {.wholeUnits = true, .modifiesBits = numbers_.modifiesBits()}),
      blocks_(*master_, {.wholeUnits = true, .modifiesBits = numbers_.modifiesBits(), .writesBlocks = true}),
      values_(description_, numbers_, stop_.token()),
      objects_(description_, wholes_, stop_.token()),
      pages_(*master_, description_, stop_.token()),
      daqSource_(*master_, config_, description_.xcp),
      watch_(*master_, description_, writes_, stop_.token()),
      returns_(*master_, description_, config_, options_.ignoresIdentity, watch_) {
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
    if (auto known = identified_ ? tellReturn() : identify(); !known.ok()) return known;
    askForDaq();
    warnAboutByteOrder();
    silent_ = false;
    changeState(SessionState::connected, "");
    return {};
}

Result<void> Session::openAgain() {
    const Identity before = identity();
    if (auto opened = open(); !opened.ok()) return opened;
    const Identity now = identity();
    if (now.state != before.state || now.ecu != before.ecu)
        return Error{ErrorCode::permissionDenied, "another software answers now: " + now.text()};
    return checkIdentity();
}

const std::string& Session::ecuText() {
    if (ecuText_) return *ecuText_;
    const auto text =
        ask([](xcp::Master& master) { return master.pages().identification(xcp::IdType::text); });
    return ecuText_.emplace(text.ok() ? text.value() : std::string());
}

std::string Session::pagesText() {
    if (!hasPages(description_)) return {};
    const auto overview = pages_.look();
    if (!overview.ok()) return {};
    std::string text;
    for (const SegmentState& segment : overview.value().segments) {
        if (!segment.xcpPage || segment.pages.size() < 2) continue;
        text += text.empty() ? "" : "; ";
        text += segment.name.empty() ? "segment " + std::to_string(segment.number) : segment.name;
        text += ": page " + std::to_string(*segment.xcpPage);
        if (segment.ecuPage && *segment.ecuPage != *segment.xcpPage)
            text += ", the ECU used page " + std::to_string(*segment.ecuPage);
    }
    return text;
}

Result<void> Session::identify() {
    using Check = SessionConfig::IdentityCheck;
    identified_ = true;
    if (config_.identityCheck == Check::off) return {};
    const Identity identity = readIdentity(wholes_, description_.parameters);
    returns_.setIdentity(identity);
    if (identity.state == Identity::State::unreadable && !stopToken().requested())
        log::info("{}", identity.text());
    if (identity.state != Identity::State::different || options_.otherSoftware == OtherSoftware::shown)
        return {};
    const bool refuses = config_.identityCheck == Check::refuse && !options_.ignoresIdentity;
    if (refuses && options_.otherSoftware == OtherSoftware::asConfigured) return otherSoftware(identity);
    log::warn("{}: values may be wrong", identity.text());
    identityWarned_ = true;
    return {};
}

/// Of an ECU that was connected before, which may be another one by now.
Result<void> Session::tellReturn() {
    const auto back = returns_.look(ecuName());
    if (!back.ok()) return back.error();
    for (const EcuReturn::Note& note : back.value().notes)
        log::warn("{}", note.text);
    const Identity identity = returns_.identity();
    const bool refuses = config_.identityCheck == SessionConfig::IdentityCheck::refuse &&
                         !options_.ignoresIdentity && options_.otherSoftware == OtherSoftware::asConfigured;
    if (refuses && identity.state == Identity::State::different) return otherSoftware(identity);
    return {};
}

Result<void> Session::checkIdentity() {
    const Identity identity = returns_.identity();
    const bool different = identity.state == Identity::State::different;
    if (different && !options_.ignoresIdentity) return otherSoftware(identity);
    const bool isAsked = config_.identityCheck != SessionConfig::IdentityCheck::off;
    if (isAsked && deniesByteOrder() && !options_.ignoresIdentity) {
        Error error{ErrorCode::permissionDenied, byteOrderText()};
        error.hint =
            "this A2L is for another ECU, or xcp.overrides.byteOrder tells what is so; "
            "--ignore-identity goes on all the same";
        return error;
    }
    if (identity.state != Identity::State::unreadable || identityWarned_) return {};
    log::warn("{}: what is written may belong to another software", identity.text());
    identityWarned_ = true;
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
    if (error.detail == xcp::kErrAccessLocked) noDaq_.detail = error.detail;
    noDaq_.hint = "the ECU has DAQ, but does not tell what it can do in it: " + error.text();
    if (!error.hint.empty()) noDaq_.hint += "; " + error.hint;
    log::warn("DAQ capabilities not available: {}", error.text());
    if (!error.hint.empty()) log::warn("{}", error.hint);
}

Result<void> Session::completeDaq() {
    if (!capabilities_ || daqCompleted_) return {};
    if (auto listed = daqSource_.askLists(*capabilities_, daqOrigins_); !listed.ok()) return listed;
    daqCompleted_ = true;
    for (const std::string& warning : daqSource_.contradictions(*capabilities_, daqOrigins_))
        log::warn("{}", warning);
    if (const auto advice = daqSource_.advice(daqOrigins_); !advice.empty()) log::warn("{}", advice);
    if (config_.daq.source == DaqTold::a2l && !description_.xcp.daq)
        log::warn("daq.source is \"a2l\", and the A2L has no DAQ block: the ECU was asked");
    log::info("DAQ: configuration from {}, resolution {}, events {}, lists {}",
              originName(daqOrigins_.configuration), originName(daqOrigins_.resolution),
              originName(daqOrigins_.events), originName(daqOrigins_.lists));
    return {};
}

Result<std::vector<DaqListId>> Session::listIds() {
    std::vector<std::uint16_t> numbers;
    for (const xcp::DaqListInfo& list :
         capabilities_ ? capabilities_->lists : std::vector<xcp::DaqListInfo>{})
        numbers.push_back(list.number);
    return medium_->listIds(*master_, numbers);
}

bool Session::deniesByteOrder() const {
    const auto& layer = description_.xcp.protocolLayer;
    const std::optional<ByteOrder> described =
        layer && layer->byteOrder ? layer->byteOrder : description_.byteOrder;
    return described && *described != master_->connectInfo().byteOrder();
}

std::string Session::byteOrderText() const {
    const bool isBig = master_->connectInfo().byteOrder() == ByteOrder::bigEndian;
    return std::string("the ECU says that its byte order is ") + (isBig ? "Motorola" : "Intel") +
           ", the A2L says otherwise";
}

void Session::warnAboutByteOrder() const {
    if (deniesByteOrder()) log::warn("{}: values may be wrong", byteOrderText());
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
    // One that was refused since CONNECT, as for the questions about DAQ.
    keyUse_->ended = std::ranges::any_of(xcp::kResources, [&](xcp::Resource resource) {
        return gaveKey(resource) && before.value().isLocked(resource) && !master_->openedByKey(resource);
    });
    std::vector<LockOutcome> outcomes;
    for (const xcp::Resource resource : xcp::kResources) {
        const bool named = std::find(resources.begin(), resources.end(), resource) != resources.end();
        const bool refused = resource == xcp::Resource::daq && noDaq_.detail == xcp::kErrAccessLocked;
        const bool locked = before.value().isLocked(resource) || refused;
        const bool offered = (connectInfo().resource & static_cast<std::uint8_t>(resource)) != 0 || locked;
        if (resources.empty() ? !offered : !named) continue;
        outcomes.push_back(unlockOne(resource, locked));
        // Of those that come after a key, only a refusal of it is so.
        const auto& error = outcomes.back().error;
        if (error && gaveKey(resource) && error->code == ErrorCode::permissionDenied &&
            error->detail == Error::kNoDetail)
            keyUse_->ended = true;
    }
    return outcomes;
}

bool Session::gaveKey(xcp::Resource resource) const {
    return (keyUse_->given & static_cast<std::uint8_t>(resource)) != 0;
}

/// Some ECUs do not tell what is locked: where there is a key, the answer to GET_SEED counts.
LockOutcome Session::unlockOne(xcp::Resource resource, bool isLocked) {
    using State = LockOutcome::State;
    if (!isLocked && master_->openedByKey(resource)) return {resource, State::unlocked};
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

std::vector<Result<Reading>> Session::read(std::span<const std::string> names) {
    const auto operation = this->operation();
    auto outcome = values_.read(names);
    if (!outcome.confirmed) silent_ = true;
    for (Result<Reading>& value : outcome.values) {
        if (!value.ok()) value = afterConnect(value.error());
    }
    return std::move(outcome.values);
}

WriteOutcome Session::write(std::string_view name, std::string_view text, WriteRights rights,
                            const BeforeWriting& beforeWriting) {
    const auto operation = this->operation();
    if (auto right = checkIdentity(); !right.ok()) return {right.error()};
    auto outcome = values_.write(name, text, rights, announcing(beforeWriting));
    if (outcome.value.ok()) {
        const value::Element& element = outcome.value.value().element;
        noteWrite({element.name, {{element.address, outcome.before, outcome.written, maskBytes(element)}}});
        return outcome;
    }
    const auto object = a2l::findScalar(description_, name, false);
    outcome.value = object ? afterWrite(outcome.value.error(), object.value().element().address.address)
                           : afterConnect(outcome.value.error());
    return outcome;
}

Result<ObjectReading> Session::readObject(std::string_view name) {
    const auto operation = this->operation();
    auto reading = objects_.read(name);
    if (reading.ok()) return reading;
    if (reading.error().code == ErrorCode::timeout) silent_ = true;
    return afterConnect(reading.error());
}

Result<void> Session::readTogether(std::span<const a2l::Object> objects,
                                   const JointReading::Progress& progress, const JointReading::Take& take) {
    ObjectAccess access(blocks_, stop_.token());
    auto read = JointReading(*master_, access, progress).run(objects, take);
    if (read.ok()) return read;
    if (read.error().code == ErrorCode::timeout) silent_ = true;
    return afterConnect(read.error());
}

ObjectWriting Session::writeObject(const WriteWish& wish, const NamedObjects::Announce& announce) {
    const auto operation = this->operation();
    if (auto right = checkIdentity(); !right.ok()) return {right.error()};
    WriteWish announced = wish;
    announced.announce = announcing({});
    auto writing = objects_.write(announced, announce);
    if (writing.value.ok()) {
        for (const WrittenObject& object : writing.written)
            noteWrite(bytesOfChange(object.before, object.after.image));
        return writing;
    }
    if (writing.value.error().code == ErrorCode::timeout) silent_ = true;
    writing.value = afterWrite(writing.value.error(), {});
    return writing;
}

void Session::noteWrites(std::vector<ObjectBytes> changes) {
    if (ISharing* const sharing = medium_->sharing()) sharing->tellWritten(changes);
    ObjectBytes all;  // sums take their time
    for (const ObjectBytes& change : changes)
        all.pieces.insert(all.pieces.end(), change.pieces.begin(), change.pieces.end());
    watch_.onWrite(all);
    for (ObjectBytes& change : changes)
        writes_.add(std::move(change));
}

/// Of a write that goes through another program.
BeforeWriting Session::announcing(const BeforeWriting& beforeWriting) {
    ISharing* const sharing = medium_->sharing();
    if (sharing == nullptr) return beforeWriting;
    return [sharing, beforeWriting](const std::vector<ObjectBytes>& changes) {
        sharing->announce(changes);
        if (beforeWriting) beforeWriting(changes);
    };
}

void Session::announceWrite(const ObjectBytes& change) {
    if (ISharing* const sharing = medium_->sharing()) sharing->announce({change});
}

void Session::noteWrite(ObjectBytes change) {
    if (ISharing* const sharing = medium_->sharing()) sharing->tellWritten({change});
    watch_.onWrite(change);
    writes_.add(std::move(change));
}

Error Session::explainWrite(const Error& error) {
    if (error.code == ErrorCode::timeout) silent_ = true;
    return afterWrite(error, {});
}

std::vector<std::string> Session::pageRemarks() {
    if (silent_ || stopToken().requested() || !master_->connected()) return {};
    std::vector<std::string> fresh = pages_.remarks();
    std::erase_if(fresh, [this](const std::string& remark) { return !toldRemarks_.insert(remark).second; });
    return fresh;
}

/// A page that no one can write is the cause that a refusal does not name.
Error Session::afterWrite(Error error, std::optional<std::uint32_t> place) {
    error = afterConnect(std::move(error));
    const bool refused = error.detail == xcp::kErrWriteProtected || error.detail == xcp::kErrAccessDenied;
    if (!refused || !error.hint.empty() || stopToken().requested()) return error;
    for (const std::string& remark : pages_.remarks(place)) {
        if (error.hint.empty()) error.hint = "the cause, most likely: " + remark;
        toldRemarks_.insert(remark);
    }
    return error;
}

Result<void> Session::sendText(std::string_view line) {
    return console_.addSent(line, [this, line] { return medium_->sendText(line); });
}

Result<PlanSummary> Session::startMeasurement(const MeasurementOptions& options) {
    if (auto accepted = acceptMeasurement(options); !accepted.ok()) return accepted.error();
    return beginAccepted(options, {});
}

Result<void> Session::acceptMeasurement(const MeasurementOptions& options) {
    if (running_) return Error{ErrorCode::alreadyOpen, "measurement already running"};
    if (!capabilities_) return noDaq_;
    if (auto completed = completeDaq(); !completed.ok()) return afterConnect(completed.error());
    measurement_.reset();
    overloadEvents_ = 0;
    recording_.reset();
    recordingsBefore_.clear();
    auto planned = Measurement::plan(
        {config_, description_, *medium_, *master_, stop_, *capabilities_, daqSource_, holes_,
         daqSource_.layoutTold(daqOrigins_), ecuName(),
         [this](SessionState state, const std::string& message) { changeState(state, message); },
         [this] { return returns_.look(ecuName()); }},
        options);
    if (!planned.ok()) return planned.error();
    measurement_ = std::move(planned).value();
    if (!options.onAccepted) return {};
    auto taken = options.onAccepted(measurement_->accepted());
    if (!taken.ok()) dropAccepted();
    return taken;
}

const MeasurementPlan& Session::acceptedPlan() const {
    return measurement_->accepted();
}

void Session::dropAccepted() {
    measurement_.reset();
    recording_.reset();
}

Result<PlanSummary> Session::beginAccepted(const MeasurementOptions& options,
                                           const std::optional<storage::GroupRange>& recording) {
    if (config_.reconnect.policy != ReconnectPolicy::abort) watch_.begin();
    if (const auto begun = beginMeasurement(options, recording); !begun.ok()) {
        watch_.end();
        dropAccepted();
        return afterConnect(begun.error());
    }
    running_ = true;
    return measurement_->summary();
}

/// With its own recording, of which a failure leaves no file that it made, or a range of another one.
Result<void> Session::beginMeasurement(const MeasurementOptions& options,
                                       const std::optional<storage::GroupRange>& recording) {
    if (recording) {
        measurement_->recordTo(*recording);
    } else if (!options.recording.directory.empty()) {
        if (auto begun = beginRecording(options.recording, options.commandLine, options.duration);
            !begun.ok())
            return begun;
    }
    auto started = measurement_->start(options);
    if (started.ok()) return started;
    if (recording_) {
        measurement_->endRecording();
        tellRecording({});
        const auto removed = recording_->discard();
        if (!removed.ok()) log::warn("{}", removed.error().text());
    }
    if (state() == SessionState::measuring) changeState(SessionState::connected, "");
    return started;
}

storage::RecordingInfo Session::describeRecording(const std::filesystem::path& directory) const {
    storage::RecordingInfo info = measurement_->recordingInfo(directory);
    info.ecuEpk = identity().ecu;
    info.a2lEpk = description_.parameters.epk;
    return info;
}

Result<value::Element> Session::signalElement(std::string_view text) {
    const std::string_view whole = text;
    const auto find = [this](std::string_view name) {
        return findSignalElements(description_, name, memoryReader(*master_), kMostSignals);
    };
    auto found = find(text);
    // An event stands behind the name, unless that has an @ itself.
    if (const std::size_t at = whole.rfind('@'); !found.ok() && at != std::string_view::npos)
        found = find(whole.substr(0, at));
    if (!found.ok()) return found.error();
    std::vector<value::Element>& elements = found.value().elements;
    if (elements.size() == 1) return std::move(elements.front());
    std::string mend = elements.empty() ? "" : ": name one of them, as in " + elements.front().name;
    return Error{ErrorCode::invalidArgument, std::string(text) + " has " + std::to_string(elements.size()) +
                                                 " elements" + std::move(mend)};
}

Result<void> Session::beginRecording(const storage::RecordingPlace& place,
                                     std::vector<std::string> commandLine,
                                     std::chrono::duration<double> duration) {
    storage::RecordingInfo info = describeRecording(place.directory);
    info.commandLine = std::move(commandLine);
    if (recordingsBefore_.empty()) recordingStartNs_ = info.startHostNs;
    std::vector<storage::GroupInfo> groups = std::exchange(info.groups, {});
    auto recorder = std::make_unique<storage::Recorder>(std::move(info));
    const storage::GroupRange range = recorder->add(std::move(groups));
    if (auto begun = recorder->begin(place, duration); !begun.ok()) return begun;
    recording_ = std::move(recorder);
    tellRecording(recording_->directory().string());
    measurement_->recordTo(range);
    return {};
}

Result<void> Session::startRecording(const storage::RecordingPlace& place,
                                     std::vector<std::string> commandLine) {
    if (!running_) return Error{ErrorCode::notOpen, "no measurement runs"};
    if (recording_)
        return Error{ErrorCode::alreadyOpen, recording_->directory().string() + " is being recorded to"};
    return beginRecording(place, std::move(commandLine), {});
}

Result<void> Session::stopRecording() {
    if (!isRecording()) return Error{ErrorCode::notOpen, "nothing is recorded"};
    measurement_->endRecording();
    tellRecording({});
    recordingsBefore_.push_back(std::move(recording_));
    return recordingsBefore_.back()->close();
}

void Session::handOnHeldRecords() {
    if (running_) measurement_->handOnHeld();
}

void Session::noteWhatRuns() {
    if (running_) measurement_->noteWhatRuns();
}

void Session::noteClock() {
    if (running_) measurement_->noteClock();
}

Result<std::int64_t> Session::mark(const std::string& text) {
    std::int64_t atNs = 0;
    const bool noted = running_ && measurement_->note([&](std::int64_t nowNs) {
        atNs = nowNs;
        return storage::markerLine({nowNs, text});
    });
    if (!noted) return Error{ErrorCode::notOpen, "nothing is recorded"};
    return atNs;
}

void Session::tellRecording(const std::string& directory) {
    const std::lock_guard lock(directoryMutex_);
    directory_ = directory;
}

std::string Session::recordingDirectory() const {
    const std::lock_guard lock(directoryMutex_);
    return directory_;
}

void Session::noteParameter(storage::ParameterWrite write) {
    if (ISharing* const sharing = medium_->sharing()) sharing->tellParameter(write);
    if (ISessionListener* const listener = listener_.load()) listener->onParameterWritten(write);
    if (!running_) return;
    measurement_->note([&](std::int64_t nowNs) {
        write.timeNs = nowNs;
        return storage::parameterLine(write);
    });
}

Result<void> Session::stopMeasurement() {
    if (!running_) return {};
    running_ = false;
    auto stopped = measurement_->stop([this] { return state(); });
    watch_.end();
    measurement_->endRecording();
    tellRecording({});
    auto recorded = recording_ ? recording_->close() : Result<void>();
    silent_ = state() != SessionState::measuring || !stopped.ok();
    stop_.reset();
    if (state() == SessionState::measuring) changeState(SessionState::connected, "");
    if (stopped.ok()) return recorded;
    if (!recorded.ok()) log::warn("{}", recorded.error().text());
    return afterConnect(stopped.error());
}

void Session::finishRecording() {
    for (const auto& recorder : recordingsBefore_)
        recorder->finishCare();
    if (recording_) recording_->finishCare();
}

MeasurementStats Session::statistics() const {
    if (!measurement_) return {};
    MeasurementStats stats = measurement_->statistics();
    const auto add = [&](const storage::Recorder& recorder) {
        stats.recording = true;
        stats.recordingStartNs = recordingStartNs_;
        stats.recorded += recorder.recordsWritten();
        stats.recordedDropped += recorder.recordsDropped();
        stats.recordingDirectory = recorder.directory();
        stats.parts += recorder.parts();
    };
    for (const auto& recorder : recordingsBefore_)
        add(*recorder);
    if (recording_) add(*recording_);
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
