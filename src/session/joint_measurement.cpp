#include "session/joint_measurement.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <map>
#include <set>
#include <utility>

#include "core/log.h"
#include "storage/format/recording_events.h"

namespace lm::session {
namespace {

/// The first error.
Result<void> allOf(std::vector<Result<void>> results) {
    for (Result<void>& result : results) {
        if (!result.ok()) return std::move(result);
    }
    return {};
}

void addCounts(MeasurementStats& sum, const MeasurementStats& part) {
    sum.records += part.records;
    sum.lostOdts += part.lostOdts;
    sum.missedCycles += part.missedCycles;
    sum.overloads += part.overloads;
    sum.reconnects += part.reconnects;
    sum.failedReconnects += part.failedReconnects;
    sum.withoutSamples += part.withoutSamples;
    sum.withoutSamplesToEnd += part.withoutSamplesToEnd;
    sum.incompleteRecords += part.incompleteRecords;
    sum.unknownDtos += part.unknownDtos;
    sum.malformedDtos += part.malformedDtos;
    sum.supervisionTurns += part.supervisionTurns;
    for (SilentList list : part.silentLists) {
        list.eventName = part.ecu + "/" + list.eventName;
        sum.silentLists.push_back(std::move(list));
    }
    if (sum.silenceHint.empty()) sum.silenceHint = part.silenceHint;
}

/// What a shared channel counts, it counts for all of its ECUs.
void addMedium(MeasurementStats& sum, const std::vector<MediumCounter>& counters, bool isSeen) {
    for (const MediumCounter& counter : counters) {
        const auto known = std::find_if(sum.medium.begin(), sum.medium.end(),
                                        [&](const auto& other) { return other.name == counter.name; });
        if (known == sum.medium.end()) {
            sum.medium.push_back(counter);
        } else {
            known->value = isSeen ? std::max(known->value, counter.value) : known->value + counter.value;
        }
    }
}

}  // namespace

JointMeasurement::JointMeasurement(EcuGroup& group) : group_(group) {
    for (const std::size_t ecu : group_.all()) {
        listeners_.push_back(std::make_unique<Listener>(*this, ecu));
        group_.at(ecu).setListener(listeners_.back().get());
    }
}

JointMeasurement::~JointMeasurement() {
    if (auto stopped = stopMeasurement(); !stopped.ok()) log::warn("{}", stopped.error().text());
    for (const std::size_t ecu : group_.all())
        group_.at(ecu).setListener(nullptr);
}

void JointMeasurement::Listener::onStateChanged(SessionState state, const std::string& message,
                                                const std::string& hint) {
    if (ISessionListener* const listener = joint.listener_.load())
        listener->onEcuStateChanged(joint.group_.name(ecu), state, message, hint);
}

void JointMeasurement::Listener::onParameterWritten(const storage::ParameterWrite& write) {
    ISessionListener* const listener = joint.listener_.load();
    if (listener == nullptr) return;
    storage::ParameterWrite named = write;
    named.name.insert(0, joint.group_.name(ecu) + "/");
    listener->onParameterWritten(named);
}

void JointMeasurement::Part::onRecord(const xcp::DaqRecord& record) {
    xcp::DaqRecord among = record;
    among.listIndex += firstList;
    const std::lock_guard lock(joint.sinkMutex_);
    joint.sink_->onRecord(among);
}

std::string JointMeasurement::ecuName() const {
    std::vector<std::string> names;
    for (const std::size_t ecu : parts_.empty() ? group_.all() : ecus())
        names.push_back(group_.name(ecu));
    return joinedNames(names);
}

bool JointMeasurement::identityWarned() const {
    const auto all = group_.all();
    return std::any_of(all.begin(), all.end(),
                       [&](std::size_t ecu) { return group_.at(ecu).identityWarned(); });
}

std::vector<IMeasured::Member> JointMeasurement::members() const {
    std::vector<Member> members;
    for (const auto& part : parts_)
        members.push_back({&nameOf(*part), &sessionOf(*part)});
    return members;
}

std::vector<std::size_t> JointMeasurement::ecus() const {
    std::vector<std::size_t> numbers;
    for (const auto& part : parts_)
        numbers.push_back(part->ecu);
    return numbers;
}

// --- Names

Result<value::Element> JointMeasurement::signalElement(std::string_view text) {
    const auto found = group_.names().find(text);
    if (!found.ok()) return found.error();
    if (found.value().size() != 1)
        return Error{ErrorCode::invalidArgument, std::string(text) + " names signals of several ECUs"};
    const NameSearch::Found& one = found.value().front();
    auto element = group_.at(one.ecu).signalElement(one.text);
    if (!element.ok()) return ofEcu(group_.name(one.ecu), element.error());
    element.value().name.insert(0, group_.name(one.ecu) + "/");
    return element;
}

bool JointMeasurement::isSignal(const PlannedSignal& signal, const std::string& text) const {
    const std::string& ecu = plan_.listEcus.at(signal.listIndex);
    const std::string before = ecu + "/";
    PlannedSignal own = signal;
    own.element.name.erase(0, before.size());
    for (const auto& part : parts_) {
        if (nameOf(*part) != ecu) continue;
        return sessionOf(*part).isSignal(own, text.starts_with(before) ? text.substr(before.size()) : text);
    }
    return false;
}

// --- Start

JointMeasurement::Part& JointMeasurement::partOf(std::size_t ecu) {
    const auto found =
        std::find_if(parts_.begin(), parts_.end(), [ecu](const auto& part) { return part->ecu == ecu; });
    if (found != parts_.end()) return **found;
    return *parts_.emplace_back(std::make_unique<Part>(*this, ecu));
}

Result<void> JointMeasurement::addTexts(const std::vector<std::string>& texts,
                                        std::vector<std::string> MeasurementOptions::*into) {
    const NameSearch names = group_.names();
    for (const std::string& text : texts) {
        auto found = names.find(text);
        if (!found.ok()) return found.error();
        for (NameSearch::Found& one : found.value())
            (partOf(one.ecu).options.*into).push_back(std::move(one.text));
    }
    return {};
}

/// To each ECU what is asked of it.
Result<void> JointMeasurement::share(const MeasurementOptions& options) {
    const bool inFolders = !options.groups.empty() || !options.functions.empty();
    if (options.signals.empty() && !options.neededAlone) {
        for (const std::size_t ecu : group_.all()) {
            const Session& session = group_.at(ecu);
            if (session.state() != SessionState::connected) continue;
            auto& signals = partOf(ecu).options.signals;
            signals = inFolders ? std::vector<std::string>{"*"} : session.config().measurement;
            if (signals.empty()) parts_.pop_back();
        }
    }
    if (auto added = addTexts(options.signals, &MeasurementOptions::signals); !added.ok()) return added;
    if (auto added = addTexts(options.needed, &MeasurementOptions::needed); !added.ok()) return added;
    std::sort(parts_.begin(), parts_.end(), [](const auto& a, const auto& b) { return a->ecu < b->ecu; });
    for (const auto& part : parts_) {
        part->options.groups = options.groups;
        part->options.functions = options.functions;
        part->options.neededAlone = part->options.signals.empty();
        part->options.recordedBySink = options.recordedBySink || !options.recording.directory.empty();
        if (options.sink != nullptr) part->options.sink = part.get();
        if (options.noteTo) {
            part->options.noteTo = [to = options.noteTo, ecu = nameOf(*part)](std::int64_t timeNs,
                                                                              const std::string& line) {
                to(timeNs, storage::lineOfEcu(line, ecu));
            };
        }
    }
    if (parts_.empty()) return Error{ErrorCode::invalidArgument, "no signals to measure"};
    return {};
}

void JointMeasurement::addPlan(Part& part) {
    const MeasurementPlan& own = sessionOf(part).acceptedPlan();
    const std::string before = nameOf(part) + "/";
    part.firstList = plan_.daq.lists.size();
    for (PlannedSignal signal : own.planned) {
        signal.element.name.insert(0, before);
        signal.listIndex += part.firstList;
        plan_.planned.push_back(std::move(signal));
    }
    plan_.daq.lists.insert(plan_.daq.lists.end(), own.daq.lists.begin(), own.daq.lists.end());
    plan_.listEcus.resize(plan_.daq.lists.size(), nameOf(part));
    for (const std::string& name : own.added)
        plan_.added.push_back(before + name);
}

Result<void> JointMeasurement::accept(const MeasurementOptions& options) {
    auto accepted = allOf(group_.tryEach(ecus(), [this](Session& session) -> Result<void> {
        for (const auto& part : parts_) {
            if (&sessionOf(*part) == &session) return session.acceptMeasurement(part->options);
        }
        return {};
    }));
    if (!accepted.ok()) return accepted;
    for (const auto& part : parts_)
        addPlan(*part);
    return options.onAccepted ? options.onAccepted(plan_) : Result<void>();
}

Result<void> JointMeasurement::beginRecording(const MeasurementOptions& options) {
    if (options.recording.directory.empty()) return {};
    storage::RecordingInfo info = describeRecording(options.recording.directory);
    info.commandLine = options.commandLine;
    recordingStartNs_ = info.startHostNs;
    std::map<std::string, std::vector<storage::GroupInfo>> groups;
    for (storage::GroupInfo& group : std::exchange(info.groups, {}))
        groups[group.ecu].push_back(std::move(group));
    recording_ = std::make_unique<storage::Recorder>(std::move(info));
    for (const auto& part : parts_)
        part->recording = recording_->add(std::move(groups[nameOf(*part)]), nameOf(*part));
    auto begun = recording_->begin(options.recording, options.duration);
    if (!begun.ok()) recording_.reset();
    return begun;
}

Result<void> JointMeasurement::beginAll() {
    std::vector<Result<void>> begun = group_.tryEach(ecus(), [this](Session& session) -> Result<void> {
        for (const auto& part : parts_) {
            if (&sessionOf(*part) != &session) continue;
            auto started = session.beginAccepted(part->options, part->recording);
            if (!started.ok()) return started.error();
            part->summary = std::move(started).value();
        }
        return {};
    });
    auto all = allOf(std::move(begun));
    if (all.ok()) return all;
    // Whose start has failed has nothing to stop.
    for (const Result<void>& stopped :
         group_.tryEach(ecus(), [](Session& session) { return session.stopMeasurement(); })) {
        if (!stopped.ok()) log::info("{}", stopped.error().text());
    }
    if (!recording_) return all;
    if (auto removed = recording_->discard(); !removed.ok()) log::warn("{}", removed.error().text());
    recording_.reset();
    return all;
}

void JointMeasurement::drop() {
    for (const auto& part : parts_)
        sessionOf(*part).dropAccepted();
    parts_.clear();
    plan_ = {};
}

Result<PlanSummary> JointMeasurement::startMeasurement(const MeasurementOptions& options) {
    if (running_) return Error{ErrorCode::alreadyOpen, "measurement already running"};
    drop();
    recording_.reset();
    sink_ = options.sink;
    auto begun = share(options);
    if (begun.ok()) begun = accept(options);
    if (begun.ok()) begun = beginRecording(options);
    if (begun.ok() && options.onPlanned) options.onPlanned(plan_);
    if (begun.ok()) begun = beginAll();
    if (!begun.ok()) {
        drop();
        return begun.error();
    }
    running_ = true;
    return summary();
}

PlanSummary JointMeasurement::summary() const {
    PlanSummary sum;
    for (const auto& part : parts_) {
        sum.signalCount += part->summary.signalCount;
        sum.listCount += part->summary.listCount;
        // Of ECUs on one line it is that of all of them; lines of their own have nothing to add up.
        sum.busLoad = std::max(sum.busLoad, part->summary.busLoad);
        for (const std::string& event : part->summary.withoutCycle)
            sum.withoutCycle.push_back(nameOf(*part) + "/" + event);
        for (const std::string& event : part->summary.notInLoad)
            sum.notInLoad.push_back(nameOf(*part) + "/" + event);
    }
    return sum;
}

// --- End

Result<void> JointMeasurement::stopMeasurement() {
    if (!std::exchange(running_, false)) return {};
    auto stopped = allOf(group_.tryEach(ecus(), [](Session& session) { return session.stopMeasurement(); }));
    auto recorded = recording_ ? recording_->close() : Result<void>();
    if (stopped.ok()) return recorded;
    if (!recorded.ok()) log::warn("{}", recorded.error().text());
    return stopped;
}

void JointMeasurement::finishRecording() {
    if (recording_) recording_->finishCare();
}

Result<void> JointMeasurement::close() {
    auto stopped = stopMeasurement();
    auto closed = group_.close();
    if (!stopped.ok()) return stopped;
    return closed;
}

// --- What it is and how it goes

storage::RecordingInfo JointMeasurement::describeRecording(const std::filesystem::path& directory) const {
    storage::RecordingInfo all;
    std::vector<std::string> sources;
    for (const auto& part : parts_) {
        storage::RecordingInfo own = sessionOf(*part).describeRecording(directory);
        const std::string before = nameOf(*part) + "/";
        for (storage::GroupInfo& group : own.groups) {
            group.ecu = nameOf(*part);
            group.name.insert(0, before);
            for (storage::SignalInfo& signal : group.signals)
                signal.name.insert(0, before);
        }
        sources.push_back(own.source);
        all.ecus.push_back({nameOf(*part), own.source, own.a2lName, own.a2lSha256, own.ecuEpk, own.a2lEpk});
        std::move(own.groups.begin(), own.groups.end(), std::back_inserter(all.groups));
        all.startHostNs = own.startHostNs;
        all.startUtcNs = own.startUtcNs;
        all.utcOffsetMinutes = own.utcOffsetMinutes;
        all.name = own.name;
    }
    all.ecu = ecuName();
    all.source = joinedNames(sources);
    return all;
}

MeasurementStats JointMeasurement::statistics() const {
    MeasurementStats sum;
    std::set<std::string> sources;
    for (const auto& part : parts_) {
        MeasurementStats own = sessionOf(*part).statistics();
        own.ecu = nameOf(*part);
        own.state = sessionOf(*part).state();
        addCounts(sum, own);
        addMedium(sum, own.medium, !sources.insert(sessionOf(*part).medium().texts().source).second);
        sum.ecus.push_back(std::move(own));
    }
    sum.state = state();
    if (!recording_) return sum;
    sum.recording = true;
    sum.recordingStartNs = recordingStartNs_;
    sum.recorded = recording_->recordsWritten();
    sum.recordedDropped = recording_->recordsDropped();
    sum.recordingDirectory = recording_->directory();
    sum.parts = recording_->parts();
    return sum;
}

SessionState JointMeasurement::state() const {
    if (parts_.empty()) return SessionState::disconnected;
    bool isOut = false;
    std::optional<SessionState> goingOn;
    for (const auto& part : parts_) {
        const Session& session = sessionOf(*part);
        const SessionState own = session.state();
        const bool failed = own == SessionState::failed;
        if (failed && session.config().reconnect.policy == ReconnectPolicy::abort) return own;
        isOut = isOut || own == SessionState::reconnecting;
        if (!failed && !goingOn) goingOn = own;
    }
    if (!goingOn) return SessionState::failed;
    return isOut ? SessionState::reconnecting : *goingOn;
}

}  // namespace lm::session
