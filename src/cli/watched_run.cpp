#include "cli/watched_run.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "cli/message_output.h"
#include "cli/recording_options.h"
#include "cli/verdict_report.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "core/text.h"

namespace lm::cli {

WatchedRun::WatchedRun(const WatchPlan& plan, session::IMeasured& session, session::ISessionListener& next)
    : plan_(plan), session_(session), nextListener_(next) {
    session_.setListener(this);
}

WatchedRun::~WatchedRun() {
    session_.setListener(&nextListener_);
}

Result<void> WatchedRun::resolve() {
    const auto find = [this](const std::string& name) { return session_.signalElement(name); };
    for (auto* const list : {&plan_.assertions, &plan_.starts, &plan_.stops}) {
        for (WantedExpression& wanted : *list) {
            auto resolved = wanted.expression.resolve(find);
            if (!resolved) {
                Error error = resolved.error();
                error.message = wanted.place + ": " + error.text();
                return error;
            }
            if (list == &plan_.assertions) watcher_.addAssertion(wanted.name, wanted.expression);
            if (list == &plan_.starts) watcher_.addStart(wanted.expression);
            if (list == &plan_.stops) watcher_.addStop(wanted.expression);
        }
    }
    return {};
}

void WatchedRun::joinTo(session::MeasurementOptions& measurement) {
    nextSink_ = std::exchange(measurement.sink, this);
    measurement.needed = watcher_.signalNames();
    measurement.onAccepted = [this](const session::MeasurementPlan& plan) { return bind(plan); };
    if (!recordsTakes()) return;
    companions_ = std::move(measurement.recording.companions);
    measurement.recording = {};
    measurement.recordedBySink = true;
    measurement.noteTo = [this](std::int64_t timeNs, const std::string& line) {
        if (takes_) takes_->note(timeNs, line);
    };
}

Result<void> WatchedRun::bind(const session::MeasurementPlan& plan) {
    auto bound = watcher_.bind(plan, [this](const session::PlannedSignal& signal, const std::string& name) {
        return session_.isSignal(signal, name);
    });
    if (!bound) return bound;
    added_ = plan.added;
    if (!recordsTakes()) return {};
    takes_.emplace(
        plan_.takes,
        [this](const std::filesystem::path& directory) {
            auto info = session_.describeRecording(directory);
            info.commandLine = commandLineWords();
            return info;
        },
        static_cast<watch::ITakeListener&>(*this), companions_);
    return takes_->begin();
}

std::string WatchedRun::startLine() const {
    std::string text;
    for (const std::string& name : added_)
        text += (text.empty() ? "also measured, as expressions name them: " : ", ") + printableText(name);
    if (!text.empty()) text += "\n";
    if (!recordsTakes()) return text;
    text += plan_.starts.empty() ? "recording until " : "waiting for ";
    const auto& triggers = plan_.starts.empty() ? plan_.stops : plan_.starts;
    for (const WantedExpression& wanted : triggers)
        text +=
            (&wanted == &triggers.front() ? "'" : " or '") + printableText(wanted.expression.text()) + "'";
    return text + ", takes go below " + printableText(plan_.takes.directory.string()) + "\n";
}

bool WatchedRun::isOver() {
    for (const std::string& remark : watcher_.takeRemarks())
        log::warn("measure: {}", remark);
    return takes_ && takes_->isComplete();
}

void WatchedRun::finish() {
    if (takes_) {
        takes_->finish();
        ended_ = takes_->takes();
    }
    static_cast<void>(isOver());
    verdicts_ = watcher_.verdicts();
}

// --- While records come

void WatchedRun::onRecord(const xcp::DaqRecord& record) {
    const watch::Fired fired = watcher_.onRecord(record);
    if (nextSink_ != nullptr) nextSink_->onRecord(record);
    if (takes_) takes_->onRecord(record, fired);
}

void WatchedRun::takeState(const std::string& ecu, session::SessionState state, const std::string& message) {
    using session::SessionState;
    if (state == SessionState::reconnecting || state == SessionState::failed) watcher_.forget(ecu);
    if (takes_) takes_->onState(state, message, ecu);
}

void WatchedRun::onStateChanged(session::SessionState state, const std::string& message,
                                const std::string& hint) {
    takeState("", state, message);
    nextListener_.onStateChanged(state, message, hint);
}

void WatchedRun::onEcuStateChanged(const std::string& ecu, session::SessionState state,
                                   const std::string& message, const std::string& hint) {
    takeState(ecu, state, message);
    nextListener_.onEcuStateChanged(ecu, state, message, hint);
}

std::string WatchedRun::timeText(std::int64_t timeNs) const {
    return secondsText(timeNs - watcher_.firstNs().value_or(timeNs));
}

void WatchedRun::onTakeBegun(const watch::Take& take) {
    if (take.error) {
        log::error("take {}: {}", take.number, take.error->text());
        return;
    }
    const std::string cause =
        take.start ? "'" + plan_.starts[*take.start].expression.text() + "'" : "the first record";
    printMessage(fmt::format("take {}: {} at {}, {} before it, recording to {}\n", take.number,
                             printableText(cause), timeText(take.triggerNs),
                             secondsText(take.triggerNs - take.firstNs),
                             printableText(take.directory.string())));
    if (take.preCut)
        log::warn("take {}: {} of memory did not hold all of the time before the trigger", take.number,
                  formatSize(takes_->memoryBytes()));
}

void WatchedRun::onTakeEnded(const watch::Take& take) {
    std::string cause = "its time was over";
    if (take.stop) cause = "'" + plan_.stops[*take.stop].expression.text() + "'";
    if (take.cutOff) cause = "the measurement ended";
    std::string text = fmt::format("take {}: ended at {}, {}, recorded {} (dropped {})", take.number,
                                   timeText(take.lastNs), printableText(cause), take.recorded, take.dropped);
    if (take.triggersInside != 0)
        text += fmt::format(", {} more trigger(s) while it ran", take.triggersInside);
    printMessage(text + "\n");
    if (take.error) log::error("take {}: {}", take.number, take.error->text());
}

// --- At the end

bool WatchedRun::asWanted() const {
    return allAsWanted(verdicts_);
}

bool WatchedRun::withoutTake() const {
    return recordsTakes() && ended_.empty();
}

bool WatchedRun::takeFailed() const {
    return std::any_of(ended_.begin(), ended_.end(), [](const auto& take) { return take.error.has_value(); });
}

std::pair<std::uint64_t, std::uint64_t> WatchedRun::recordedAndDropped() const {
    std::pair<std::uint64_t, std::uint64_t> sum{0, 0};
    for (const watch::Take& take : ended_) {
        sum.first += take.recorded;
        sum.second += take.dropped;
    }
    return sum;
}

std::string WatchedRun::lines() const {
    std::string text;
    if (withoutTake())
        text = "no take: " + std::string(plan_.starts.empty() ? "no record came" : "no trigger came") + "\n";
    return text + verdictLines(verdicts_);
}

void WatchedRun::write(JsonWriter& json) const {
    if (!verdicts_.empty()) writeVerdicts(json, verdicts_);
    if (recordsTakes()) writeTakes(json, ended_, watcher_.firstNs().value_or(0));
}

void WatchedRun::addCases(double seconds, std::vector<TestCase>& cases) const {
    for (const watch::Verdict& verdict : verdicts_)
        cases.push_back(verdictCase(verdict, seconds));
}

}  // namespace lm::cli
