#include "session/measurement.h"

#include <algorithm>
#include <chrono>
#include <limits>

#include "core/log.h"
#include "session/ecu_note.h"
#include "session/measurement_plan.h"
#include "session/refusal_hint.h"
#include "storage/format/recording_events.h"

namespace lm::session {
namespace {

std::int64_t steadyNowNs() {
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::int64_t heartbeatNs(const MeasurementContext& context) {
    return std::chrono::nanoseconds(context.config.reconnect.heartbeat).count();
}

/// Between two records; where samples do not come regularly, any gap that the supervision could notice.
std::int64_t leastGapNs(const xcp::DaqPlan& plan, const MeasurementContext& context) {
    const auto four = static_cast<std::int64_t>(4 * shortestPeriodNs(plan, context.capabilities));
    return four > 0 ? std::min(four, heartbeatNs(context)) : heartbeatNs(context);
}

constexpr const char* kByA2l =
    "the lists are set up as the A2L's DAQ block describes them (\"source\": \"a2l\" under \"daq\" in the "
    "configuration), which the ECU does not take: it may have others than those; without that key it is "
    "asked";

std::vector<std::uint16_t> listNumbers(const xcp::DaqPlan& plan) {
    std::vector<std::uint16_t> numbers;
    for (const xcp::DaqList& list : plan.lists)
        numbers.push_back(list.number);
    return numbers;
}

std::string withCause(const std::string& hint, const std::string& cause) {
    return hint.empty() || cause.empty() ? hint + cause : hint + ": " + cause;
}

void add(xcp::DaqDecoderCounters& total, const xcp::DaqDecoderCounters& part) {
    total.dtos += part.dtos;
    total.records += part.records;
    total.lostOdts += part.lostOdts;
    total.incompleteRecords += part.incompleteRecords;
    total.missedCycles += part.missedCycles;
    total.overloads += part.overloads;
    total.unknownDtos += part.unknownDtos;
    total.malformedDtos += part.malformedDtos;
}

}  // namespace

Result<std::unique_ptr<Measurement>> Measurement::plan(MeasurementContext context,
                                                       const MeasurementOptions& options) {
    auto accepted = acceptPlan(context, options);
    if (!accepted.ok()) return accepted.error();
    // The constructor is private, which std::make_unique cannot call.
    return std::unique_ptr<Measurement>(new Measurement(std::move(context), std::move(accepted).value()));
}

Result<void> Measurement::start(const MeasurementOptions& options) {
    sink_ = options.sink;
    noteTo_ = options.noteTo;
    if (options.onPlanned) options.onPlanned(plan_);
    noteWhatRuns();
    started_ = true;
    auto started = startLists(context_.capabilities);
    if (started.ok()) {
        changeState(SessionState::measuring, "");
        started = supervisor_->start();
    }
    if (!started.ok()) abandonStart();
    return started;
}

void Measurement::recordTo(const storage::GroupRange& recording) {
    const std::int64_t nowNs = steadyNowNs();
    recording_.begin(recording, nowNs, started_ ? nowNs : std::numeric_limits<std::int64_t>::min());
    if (started_) noteWhatRuns();
}

bool Measurement::note(const std::function<std::string(std::int64_t)>& line) {
    const std::int64_t nowNs = steadyNowNs();
    if (noteTo_) noteTo_(nowNs, line(nowNs));
    return recording_.note(line(nowNs)) || noteTo_;
}

Measurement::Measurement(MeasurementContext context, AcceptedPlan accepted)
    : context_(std::move(context)),
      plan_(std::move(accepted.plan)),
      busLoad_(accepted.busLoad),
      outages_(leastGapNs(plan_.daq, context_), heartbeatNs(context_)),
      countersAtStart_(context_.medium.counters()),
      delivered_(plan_.daq.lists.size()) {
    outages_.start(steadyNowNs());
    const SessionConfig::Reconnect& reconnect = context_.config.reconnect;
    supervisor_ = std::make_unique<Supervisor>(
        static_cast<ISupervised&>(*this),
        SupervisorOptions{reconnect.policy, reconnect.attempts, reconnect.interval, reconnect.heartbeat,
                          shortestPeriodNs(plan_.daq, context_.capabilities)},
        context_.stop.token());
}

Measurement::~Measurement() {
    supervisor_->join();
    context_.master.setDtoSink(nullptr);
    context_.medium.releaseLoad();
}

/// Downloads the plan, installs a fresh decoder, starts DAQ.
Result<void> Measurement::startLists(const xcp::DaqCapabilities& capabilities) {
    xcp::Master& master = context_.master;
    xcp::DaqRefusal refusal;
    const auto firstPids = xcp::inStep(
        master, [&] { return master.configureDaq(plan_.daq, context_.config.daq.firstPid, refusal); });
    if (!firstPids.ok()) {
        Error error = firstPids.error();
        if (error.detail != Error::kNoDetail)
            error.hint = withCause(refusalHint(plan_, capabilities, refusal, error.detail), error.hint);
        // What is wrong with an entry lies in that entry.
        const bool ofLists = error.detail != Error::kNoDetail && !refusal.offset;
        if (ofLists && context_.config.daq.source == DaqTold::a2l && context_.description.xcp.daq)
            error.hint += (error.hint.empty() ? "" : "; ") + std::string(kByA2l);
        return error;
    }
    if (auto heard = context_.medium.prepareLists(master, listNumbers(plan_.daq)); !heard) return heard;
    removeDecoder();
    {
        const std::lock_guard lock(decoderMutex_);
        decoder_ = std::make_unique<xcp::DaqDecoder>(plan_.daq, capabilities, firstPids.value());
        decoder_->setSink(this);
        decoder_->setHoles(&context_.holes);
        if (!misfitTold_ && !context_.layoutTold.empty()) {
            const auto mayFill = [this](std::size_t planned, std::size_t length) {
                return context_.medium.mayFill(planned, length);
            };
            fit_ = std::make_unique<xcp::DtoFit>(plan_.daq.lists.size(), plan_.daq.timestampSize,
                                                 capabilities.tickNs, mayFill);
            decoder_->setFit(fit_.get());
        }
        decoder_->holdBack();
    }
    context_.master.setDtoSink(decoder_.get());
    return context_.master.startDaq();
}

/// Once, when it is known; decoderMutex_ is held.
void Measurement::tellMisfit() {
    if (!fit_ || misfitTold_) return;
    const std::string misfit = fit_->misfit();
    if (misfit.empty()) return;
    misfitTold_ = true;
    log::warn("{}: values and times are wrong or missing; {}", misfit, context_.layoutTold);
}

void Measurement::removeDecoder() {
    context_.master.setDtoSink(nullptr);
    const std::lock_guard lock(decoderMutex_);
    if (!decoder_) return;
    decoder_->settle(std::numeric_limits<std::int64_t>::max());
    tellMisfit();
    add(totals_, decoder_->counters());
    keepClock();
    for (std::size_t i = 0; i < delivered_.size(); ++i)
        delivered_[i] = delivered_[i] || decoder_->recordsOf(i) != 0;
    decoder_.reset();
}

/// Of a decoder that ends; decoderMutex_ is held.
void Measurement::keepClock() {
    const auto latest = decoder_->clockFigures();
    if (latest && (!clockBefore_ || clockBefore_->spanNs <= latest->spanNs)) clockBefore_ = latest;
}

/// The latest, unless an earlier one was seen for longer; decoderMutex_ is held.
std::optional<xcp::ClockFigures> Measurement::clock() const {
    const auto latest = decoder_ ? decoder_->clockFigures() : std::nullopt;
    if (!clockBefore_ || (latest && latest->spanNs >= clockBefore_->spanNs)) return latest;
    return clockBefore_;
}

void Measurement::noteClock() {
    if (!recording_.isOn() && !noteTo_) return;
    clockNotedNs_ = steadyNowNs();
    std::optional<xcp::ClockFigures> found;
    {
        const std::lock_guard lock(decoderMutex_);
        found = clock();
    }
    if (!found) return;
    tellOfEcu(clockNotedNs_, storage::ecuClockLine({clockNotedNs_, found->offsetNs, found->driftPpm,
                                                    found->residualNs, found->spanNs}));
}

void Measurement::abandonStart() {
    // The reason why the start failed is what counts; an ECU that refused it may well refuse this too.
    const auto stopped = context_.master.stopDaq();
    // When the user ended the start, that command was not even sent, yet a list may run by now.
    if (!stopped.ok() && context_.stop.token().requested()) {
        static_cast<void>(context_.master.stopDaqWithoutWaiting());
    }
    removeDecoder();
}

Result<void> Measurement::stop(const std::function<SessionState()>& state) {
    const std::int64_t endNs = steadyNowNs();
    context_.stop.request();
    supervisor_->join();

    Result<void> stopped;
    const bool measuring = state() == SessionState::measuring;
    if (measuring) {
        // An ECU that ended the session may go on sending all the same.
        xcp::Master& master = context_.master;
        stopped = master.connected() ? master.stopDaqOnce() : master.stopDaqUnconnected();
    } else {
        // No one is known to listen: what cannot even be sent changes nothing.
        static_cast<void>(context_.master.stopDaqWithoutWaiting());
    }
    removeDecoder();
    // An ECU that refuses the stop is there all the same.
    const bool answered = stopped.ok() || stopped.error().detail != Error::kNoDetail;
    using Stop = OutageMeter::Stop;
    outages_.finish(endNs,
                    !measuring ? Stop::lost
                    : answered ? Stop::answered
                               : Stop::unanswered,
                    supervisor_->watchesData());
    context_.medium.releaseLoad();
    noteClock();
    std::optional<OutageNotes::Silence> silence;
    if (outages_.upToEndNs() != 0) silence = {outages_.latestNs(), endNs};
    recording_.finish(silence, steadyNowNs());
    return stopped;
}

PlanSummary Measurement::summary() const {
    PlanSummary summary{plan_.planned.size(), plan_.daq.lists.size(), busLoad_, {}, {}};
    for (const storage::GroupInfo& group : session::recordingInfo(plan_, context_.capabilities).groups) {
        if (group.cycleNs != 0) continue;
        // Without timestamps nothing is checked anywhere, which the start has told.
        if (plan_.daq.timestampSize != 0) summary.withoutCycle.push_back(group.name);
        if (context_.medium.hasLoad()) summary.notInLoad.push_back(group.name);
    }
    return summary;
}

MeasurementStats Measurement::statistics() const {
    MeasurementStats stats;
    xcp::DaqDecoderCounters decoded;
    {
        const std::lock_guard lock(decoderMutex_);
        decoded = totals_;
        stats.clock = clock();
        if (decoder_) add(decoded, decoder_->counters());
    }
    stats.records = decoded.records;
    stats.lostOdts = decoded.lostOdts;
    stats.missedCycles = decoded.missedCycles;
    stats.overloads = decoded.overloads;
    stats.incompleteRecords = decoded.incompleteRecords;
    stats.unknownDtos = decoded.unknownDtos;
    stats.malformedDtos = decoded.malformedDtos;
    stats.reconnects = reconnects_.load();
    stats.withoutSamples = std::chrono::nanoseconds(outages_.beforeReconnectionsNs());
    stats.failedReconnects = stats.reconnects - std::min(outages_.ended(), stats.reconnects);
    stats.withoutSamplesToEnd = std::chrono::nanoseconds(outages_.upToEndNs());
    stats.supervisionTurns = supervisor_->turns();
    addSilentLists(stats);
    stats.medium = context_.medium.counters();
    for (std::size_t i = 0; i < stats.medium.size(); ++i) {
        std::uint64_t& value = stats.medium[i].value;
        // Less than at the start when packets from before it came late.
        value -= std::min(value, countersAtStart_[i].value);
    }
    return stats;
}

void Measurement::addSilentLists(MeasurementStats& stats) const {
    const std::lock_guard lock(decoderMutex_);
    for (std::size_t i = 0; i < delivered_.size(); ++i) {
        if (delivered_[i] || (decoder_ && decoder_->recordsOf(i) != 0)) continue;
        const xcp::DaqList& list = plan_.daq.lists[i];
        const xcp::EventChannel* const event = context_.capabilities.findEvent(list.eventChannel);
        stats.silentLists.push_back(
            event == nullptr ? SilentList{list.eventChannel, "", 0}
                             : SilentList{list.eventChannel, event->name,
                                          static_cast<std::int64_t>(periodNs(list, context_.capabilities))});
    }
    const auto& silent = stats.silentLists;
    const bool suspicious = silent.size() == delivered_.size() ||
                            std::any_of(silent.begin(), silent.end(), [](const SilentList& list) {
                                return list.cycleNs > 0;  // others may not have happened
                            });
    if (suspicious) stats.silenceHint = context_.medium.silenceHint();
}

std::uint64_t Measurement::recordsReceived() const {
    const std::lock_guard lock(decoderMutex_);
    return totals_.records + (decoder_ ? decoder_->counters().records : 0);
}

void Measurement::endRecording() {
    if (!recording_.isOn()) return;
    handOnHeld();
    recording_.end();
}

void Measurement::handOnHeld() {
    const std::lock_guard lock(decoderMutex_);
    if (decoder_) decoder_->settle(std::numeric_limits<std::int64_t>::max());
}

void Measurement::settleSamples() {
    // Each part of a long recording is to tell of the clock, and so is one that is never closed.
    constexpr std::int64_t kBetweenNotesNs = 20'000'000'000;
    if (clockNotedNs_ == 0) clockNotedNs_ = steadyNowNs();
    if (steadyNowNs() - clockNotedNs_ >= kBetweenNotesNs) noteClock();
    const std::lock_guard lock(decoderMutex_);
    if (decoder_) decoder_->settle(steadyNowNs());
    if (decoder_ && fit_ && fit_->finished()) tellMisfit();
}

void Measurement::countReconnect() {
    outages_.begin(steadyNowNs());
    reconnects_.fetch_add(1);
}

void Measurement::onRecord(const xcp::DaqRecord& record) {
    outages_.onRecord(record.timeNs(), record.receiveTimeNs);
    if (sink_ != nullptr) sink_->onRecord(record);
    // A record that the recording cannot take is in its own count of dropped ones.
    recording_.write(record.listIndex, record.timeNs(), record.data, record.size);
}

Result<bool> Measurement::daqRunning() {
    const auto ask = [this] { return context_.master.getStatus(); };
    auto status = ask();
    // Only an answer that is certainly the ECU's may end a measurement.
    if (!context_.config.xcp.overrides.ignoreDaqRunningBit && status.ok() && !status.value().daqRunning())
        status = xcp::inStep(context_.master, ask);
    if (!status.ok()) return status.error();
    if (context_.config.xcp.overrides.ignoreDaqRunningBit && !status.value().daqRunning()) {
        if (!bitIgnored_)
            log::warn("the ECU says that no DAQ list runs: ignored (xcp.overrides.ignoreDaqRunningBit)");
        bitIgnored_ = true;
        return true;
    }
    return status.value().daqRunning();
}

Result<void> Measurement::reconnect() {
    bitIgnored_ = false;
    // A device that has gone is opened again: a CAN channel here, a serial port by CONNECT. An attempt that
    // never ended would take the decision from the reconnect policy.
    if (auto reopened = context_.medium.reopenIfLost(); !reopened.ok()) return reopened;
    const std::uint32_t configured = std::max<std::uint32_t>(context_.config.xcp.connectAttempts, 1);
    const std::uint32_t attempts =
        std::min<std::uint32_t>(configured, std::numeric_limits<std::int32_t>::max());
    return context_.master.connect(xcp::ConnectMode::normal, static_cast<std::int32_t>(attempts));
}

/// Before DAQ runs again, so that no sample is of parameters that are put right a moment later.
Result<std::string> Measurement::lookAgain() {
    auto back = context_.lookAgain();
    if (!back) return back.error();
    for (const EcuReturn::Note& note : back.value().notes) {
        log::warn("{}", note.text);
        const std::int64_t nowNs = steadyNowNs();
        tellOfEcu(nowNs, storage::ecuChangedLine(nowNs, note.what, note.text));
    }
    return std::move(back.value().ending);
}

Result<void> Measurement::restartDaq() {
    xcp::DaqCapabilities capabilities;
    auto origins = context_.daqSource.ask(capabilities);
    if (!origins.ok()) return origins.error();
    if (auto listed = context_.daqSource.askLists(capabilities, origins.value()); !listed.ok()) return listed;
    auto fits = checkPlanFits(plan_.daq, capabilities, context_.master.connectInfo());
    if (!fits.ok()) return fits;
    auto placed = checkPlaces(plan_.placedBy, memoryReader(context_.master));
    if (!placed.ok()) return placed;
    auto started = startLists(capabilities);
    if (started.ok()) outages_.end(steadyNowNs());
    // An ECU that was only out of reach may still run the old lists and refuse others meanwhile.
    if (!started.ok() && started.error().detail != Error::kNoDetail) {
        static_cast<void>(context_.master.stopDaq());
    }
    return started;
}

void Measurement::changeState(SessionState state, const std::string& message) {
    recording_.onState(state, message, outages_.latestNs(), steadyNowNs());
    context_.changeState(state, message);
    // At the start that was done before.
    if (state == SessionState::measuring && !message.empty()) noteWhatRuns();
}

void Measurement::tellOfEcu(std::int64_t timeNs, const std::string& line) {
    recording_.note(line);
    if (noteTo_) noteTo_(timeNs, line);
}

void Measurement::noteWhatRuns() {
    if (!recording_.isOn() && !noteTo_) return;
    const storage::EcuNote note =
        noteEcu(context_.master, context_.description, context_.config, context_.stop.token(), steadyNowNs());
    if (!note.trouble.empty()) log::info("not known what runs in the ECU: {}", note.trouble);
    if (!note.epk.empty() || !note.sums.empty() || !note.trouble.empty())
        tellOfEcu(note.timeNs, storage::ecuLine(note));
}

}  // namespace lm::session
