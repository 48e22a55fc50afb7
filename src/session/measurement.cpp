#include "session/measurement.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <limits>

#include <spdlog/spdlog.h>

#include "core/platform.h"
#include "session/bus_load.h"
#include "session/measurement_plan.h"

namespace lm::session {
namespace {

LoadEstimate estimateLoad(const LoadInput& input, const TransportSetup& transport) {
    switch (transport.address.kind) {
        case TransportKind::can:
            return estimateCanLoad(input, transport.can->timing());
        case TransportKind::serial:
            return estimateSerialLoad(input, transport.address.baudrate);
        case TransportKind::udp:
            break;
    }
    return estimateUdpLoad(input);
}

/// The load of all ECUs on the line as estimated, or the refusal when it exceeds the limit. An accepted load
/// stays claimed.
Result<double> acceptedLoad(const MeasurementPlan& plan, const MeasurementContext& context) {
    const TransportSetup& transport = context.transport;
    const double own = estimateLoad(loadInput(plan.daq, context.capabilities), transport).fraction;
    const double others = transport.can ? transport.can->claimLoad(own) : 0;
    const double total = own + others;
    const double limit = context.config.daq.maxBusLoad;
    if (total <= limit) return total;
    if (transport.can) transport.can->releaseLoad();
    std::array<char, 200> text{};
    if (transport.address.kind == TransportKind::serial) {
        std::snprintf(text.data(), text.size(),
                      "estimated load of the serial line %.0f %% at %u baud exceeds the limit of %.0f %% "
                      "(fewer signals, slower events or a higher baud rate)",
                      total * 100, transport.address.baudrate, limit * 100);
    } else if (others > 0) {
        std::snprintf(text.data(), text.size(),
                      "estimated bus load on %s %.0f %% (this ECU %.0f %%, others %.0f %%) exceeds the limit "
                      "of %.0f %%",
                      transport.can->channel().name().c_str(), total * 100, own * 100, others * 100,
                      limit * 100);
    } else {
        std::snprintf(text.data(), text.size(), "estimated bus load %.0f %% exceeds the limit of %.0f %%",
                      total * 100, limit * 100);
    }
    return Error{ErrorCode::invalidArgument, text.data()};
}

/// What the ECU told, but no DTO longer than a CAN frame: on a bus of short frames it would never come.
xcp::ConnectInfo carriedBy(const TransportSetup& transport, xcp::ConnectInfo info) {
    if (!transport.can) return info;
    const std::size_t frame =
        transport.can->transportConfig().fd ? hal::CanFrame::kMaxData : hal::CanFrame::kMaxClassicData;
    if (info.maxDto <= frame) return info;
    spdlog::warn("the ECU says MAX_DTO {}, a CAN frame holds {} bytes: its ODTs are made for those",
                 info.maxDto, frame);
    info.maxDto = static_cast<std::uint16_t>(frame);
    return info;
}

/// What a recording says about where it comes from.
std::string sourceOf(const EcuAddress& address) {
    const char* medium = address.kind == TransportKind::can      ? "XCP on CAN "
                         : address.kind == TransportKind::serial ? "XCP on serial "
                                                                 : "XCP on UDP ";
    return medium + std::string(address.place());
}

std::int64_t nowNs(std::chrono::nanoseconds time) {
    return time.count();
}

std::int64_t steadyNowNs() {
    return nowNs(std::chrono::steady_clock::now().time_since_epoch());
}

std::int64_t heartbeatNs(const MeasurementContext& context) {
    return nowNs(context.config.reconnect.heartbeat);
}

/// Between two records; where samples do not come regularly, any gap that the supervision could notice.
std::int64_t leastGapNs(const xcp::DaqPlan& plan, const MeasurementContext& context) {
    const auto four = static_cast<std::int64_t>(4 * shortestPeriodNs(plan, context.capabilities));
    return four > 0 ? std::min(four, heartbeatNs(context)) : heartbeatNs(context);
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
    const auto& texts = options.signals.empty() ? context.config.measurement : options.signals;
    auto plan = planMeasurement(context.description, texts, context.config.daq, context.capabilities,
                                carriedBy(context.transport, context.master.connectInfo()));
    if (!plan.ok()) return plan.error();
    if (!options.recordDirectory.empty()) {
        if (const auto able = requireRecordable(plan.value()); !able.ok()) return able.error();
    }
    const auto load = acceptedLoad(plan.value(), context);
    if (!load.ok()) return load.error();
    const std::string warning = foreignEventWarning(plan.value());
    if (!warning.empty()) spdlog::warn("{}", warning);
    if (plan.value().daq.timestampSize == 0) {
        spdlog::warn("measure: the DTOs carry no timestamps, so cycles that get lost cannot be noticed");
    }

    // The constructor is private, which std::make_unique cannot call.
    return std::unique_ptr<Measurement>(
        new Measurement(std::move(context), std::move(plan).value(), load.value()));
}

Result<void> Measurement::start(const MeasurementOptions& options) {
    sink_ = options.sink;
    if (options.onPlanned) options.onPlanned(plan_);
    auto started = startLists(context_.capabilities);
    if (started.ok()) {
        changeState(SessionState::measuring, "");
        started = supervisor_->start();
    }
    if (!started.ok()) abandonStart();
    return started;
}

Measurement::Measurement(MeasurementContext context, MeasurementPlan plan, double busLoad)
    : context_(std::move(context)),
      plan_(std::move(plan)),
      busLoad_(busLoad),
      outages_(leastGapNs(plan_.daq, context_), heartbeatNs(context_)),
      delivered_(plan_.daq.lists.size()) {
    outages_.start(steadyNowNs());
    if (context_.transport.udp != nullptr) udpAtStart_ = context_.transport.udp->statistics();
    if (context_.transport.serial != nullptr) serialAtStart_ = context_.transport.serial->statistics();
    if (context_.transport.can) canAtStart_ = context_.transport.can->channel().statistics();
    const SessionConfig::Reconnect& reconnect = context_.config.reconnect;
    supervisor_ = std::make_unique<Supervisor>(
        static_cast<ISupervised&>(*this),
        SupervisorOptions{reconnect.policy, reconnect.attempts, reconnect.interval, reconnect.heartbeat,
                          shortestPeriodNs(plan_.daq, context_.capabilities)});
}

Measurement::~Measurement() {
    supervisor_->stop();
    context_.master.setDtoSink(nullptr);
    if (context_.transport.can) context_.transport.can->releaseLoad();
}

storage::RecordingInfo Measurement::recordingInfo(const std::filesystem::path& directory) const {
    storage::RecordingInfo info = session::recordingInfo(plan_, context_.capabilities);
    info.startHostNs = steadyNowNs();
    info.startUtcNs = nowNs(std::chrono::system_clock::now().time_since_epoch());
    info.source = sourceOf(context_.transport.address);
    const auto normal = directory.lexically_normal();
    info.name = (normal.has_filename() ? normal : normal.parent_path()).filename().string();
    info.ecu = context_.ecuName;
    info.utcOffsetMinutes = utcOffsetMinutes(info.startUtcNs);
    info.a2lName = context_.config.a2l.filename().string();
    info.a2lSha256 = context_.description.sha256;
    return info;
}

/// Downloads the plan, installs a fresh decoder, starts DAQ.
Result<void> Measurement::startLists(const xcp::DaqCapabilities& capabilities) {
    xcp::Master& master = context_.master;
    const auto firstPids =
        xcp::inStep(master, [&] { return master.configureDaq(plan_.daq, context_.config.daq.firstPid); });
    if (!firstPids.ok()) return firstPids.error();
    removeDecoder();
    {
        const std::lock_guard lock(decoderMutex_);
        decoder_ = std::make_unique<xcp::DaqDecoder>(plan_.daq, capabilities, firstPids.value());
        decoder_->setSink(this);
        decoder_->setHoles(&context_.holes);
        decoder_->holdBack();
    }
    context_.master.setDtoSink(decoder_.get());
    return context_.master.startDaq();
}

void Measurement::removeDecoder() {
    context_.master.setDtoSink(nullptr);
    const std::lock_guard lock(decoderMutex_);
    if (!decoder_) return;
    decoder_->settle(std::numeric_limits<std::int64_t>::max());
    add(totals_, decoder_->counters());
    for (std::size_t i = 0; i < delivered_.size(); ++i)
        delivered_[i] = delivered_[i] || decoder_->recordsOf(i) != 0;
    decoder_.reset();
}

void Measurement::abandonStart() {
    // The reason why the start failed is what counts; an ECU that refused it may well refuse this too.
    const auto stopped = context_.master.stopDaq();
    // When the user ended the start, that command was not even sent, yet a list may run by now.
    if (!stopped.ok() && stopped.error().code == ErrorCode::closed) {
        static_cast<void>(context_.master.stopDaqWithoutWaiting());
    }
    removeDecoder();
}

Result<void> Measurement::stop(const std::function<SessionState()>& state) {
    const std::int64_t endNs = steadyNowNs();
    supervisor_->requestStop();
    context_.master.requestStop();
    if (context_.transport.serial != nullptr) context_.transport.serial->requestStop();
    supervisor_->stop();

    Result<void> stopped;
    const bool measuring = state() == SessionState::measuring;
    if (measuring) {
        // An ECU that ended the session may go on sending all the same.
        xcp::Master& master = context_.master;
        stopped = master.connected() ? master.stopDaqOnce() : master.stopDaqUnconnected();
    } else {
        // Nobody is known to listen: what cannot even be sent changes nothing.
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
    if (context_.transport.can) context_.transport.can->releaseLoad();
    if (recording_) {
        if (outages_.upToEndNs() != 0) {
            notes_.endSilent(outages_.latestNs(), endNs, *recording_);
        }
        notes_.end(steadyNowNs(), *recording_);
    }
    return stopped;
}

PlanSummary Measurement::summary() const {
    PlanSummary summary{plan_.planned.size(), plan_.daq.lists.size(), busLoad_, {}};
    // Without timestamps nothing is checked anywhere, which the start has told.
    if (plan_.daq.timestampSize == 0) return summary;
    for (const storage::GroupInfo& group : session::recordingInfo(plan_, context_.capabilities).groups) {
        if (group.cycleNs == 0) summary.withoutCycle.push_back(group.name);
    }
    return summary;
}

MeasurementStats Measurement::statistics() const {
    MeasurementStats stats;
    xcp::DaqDecoderCounters decoded;
    {
        const std::lock_guard lock(decoderMutex_);
        decoded = totals_;
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
    addSilentLists(stats);
    if (context_.transport.can) {
        const hal::CanChannelStatistics can = context_.transport.can->channel().statistics();
        stats.canDropped = can.framesLost - canAtStart_.framesLost;
        stats.canErrorFrames = can.errorFrames - canAtStart_.errorFrames;
    }
    if (context_.transport.udp != nullptr) {
        const xcp::UdpStatistics udp = context_.transport.udp->statistics();
        stats.counterGaps = udp.counterGaps - udpAtStart_.counterGaps;
        // Less when packets from before the start came late.
        stats.missingPackets =
            std::max(udp.missingPackets, udpAtStart_.missingPackets) - udpAtStart_.missingPackets;
        stats.malformedDatagrams = udp.malformedDatagrams - udpAtStart_.malformedDatagrams;
        stats.kernelDrops = udp.kernelDrops - udpAtStart_.kernelDrops;
    }
    if (context_.transport.serial != nullptr) {
        stats.invalidFrames =
            context_.transport.serial->statistics().invalidFrames - serialAtStart_.invalidFrames;
    }
    return stats;
}

void Measurement::addSilentLists(MeasurementStats& stats) const {
    const std::lock_guard lock(decoderMutex_);
    for (std::size_t i = 0; i < delivered_.size(); ++i) {
        if (delivered_[i] || (decoder_ && decoder_->recordsOf(i) != 0)) continue;
        const xcp::DaqList& list = plan_.daq.lists[i];
        const xcp::EventChannel* const event = context_.capabilities.findEvent(list.eventChannel);
        stats.silentLists.push_back(event == nullptr
                                        ? SilentList{list.eventChannel, "", 0}
                                        : SilentList{list.eventChannel, event->name, event->cycleNs});
    }
    const auto& silent = stats.silentLists;
    const bool suspicious = silent.size() == delivered_.size() ||
                            std::any_of(silent.begin(), silent.end(), [](const SilentList& list) {
                                return list.cycleNs > 0;  // others may not have happened
                            });
    const auto& can = context_.transport.can;
    if (can && suspicious && !can->listIdsFixed()) stats.onlyHeardId = can->resId();
}

std::uint64_t Measurement::recordsReceived() const {
    const std::lock_guard lock(decoderMutex_);
    return totals_.records + (decoder_ ? decoder_->counters().records : 0);
}

void Measurement::settleSamples() {
    const std::lock_guard lock(decoderMutex_);
    if (decoder_) decoder_->settle(steadyNowNs());
}

void Measurement::countReconnect() {
    outages_.begin(steadyNowNs());
    reconnects_.fetch_add(1);
}

void Measurement::onRecord(const xcp::DaqRecord& record) {
    outages_.onRecord(record.timeNs(), record.receiveTimeNs);
    if (sink_ != nullptr) sink_->onRecord(record);
    // A record that the recording cannot take is in its own count of dropped ones.
    if (recording_) recording_->write(record.listIndex, record.timeNs(), record.data, record.size);
}

/// A stop reaches the master before the supervisor, which must not take the command it ended for a loss.
void Measurement::passOnStop() {
    if (context_.master.stopRequested()) supervisor_->requestStop();
}

Result<bool> Measurement::daqRunning() {
    const auto ask = [this] { return context_.master.getStatus(); };
    auto status = ask();
    // Only an answer that is certainly the ECU's may end a measurement.
    if (status.ok() && !status.value().daqRunning()) status = xcp::inStep(context_.master, ask);
    passOnStop();
    if (!status.ok()) return status.error();
    return status.value().daqRunning();
}

Result<void> Measurement::reconnect() {
    // A device that has gone is opened anew: a CAN channel here, a serial port by CONNECT. An attempt that
    // never ended would take the decision from the reconnect policy.
    if (context_.transport.can) {
        auto reopened = context_.transport.can->channel().reopenIfLost();
        if (!reopened.ok()) return reopened;
    }
    const std::uint32_t configured = std::max<std::uint32_t>(context_.config.xcp.connectAttempts, 1);
    const std::uint32_t attempts =
        std::min<std::uint32_t>(configured, std::numeric_limits<std::int32_t>::max());
    auto connected = context_.master.connect(xcp::ConnectMode::normal, static_cast<std::int32_t>(attempts));
    passOnStop();
    return connected;
}

Result<void> Measurement::restartDaq() {
    auto restarted = configureAnew();
    passOnStop();
    return restarted;
}

Result<void> Measurement::configureAnew() {
    const auto capabilities =
        xcp::inStep(context_.master, [this] { return context_.master.daqCapabilities(); });
    if (!capabilities.ok()) return capabilities.error();
    auto fits = checkPlanFits(plan_.daq, capabilities.value(), context_.master.connectInfo());
    if (!fits.ok()) return fits;
    auto started = startLists(capabilities.value());
    if (started.ok()) outages_.end(steadyNowNs());
    // An ECU that was only out of reach may still run the old lists and refuse others meanwhile.
    if (!started.ok() && started.error().detail != Error::kNoDetail) {
        static_cast<void>(context_.master.stopDaq());
    }
    return started;
}

void Measurement::changeState(SessionState state, const std::string& message) {
    if (recording_) notes_.onState(state, message, outages_.latestNs(), steadyNowNs(), *recording_);
    context_.changeState(state, message);
}

}  // namespace lm::session
