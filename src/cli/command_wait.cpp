#include "cli/command_wait.h"

#include <atomic>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "cli/console_printer.h"
#include "cli/message_output.h"
#include "cli/several_ecus.h"
#include "cli/stop_signal.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "core/text.h"
#include "session/joint_measurement.h"
#include "session/value_access.h"

namespace lm::cli {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kNotWithin = 3;
constexpr std::chrono::milliseconds kLook{5};
constexpr std::chrono::milliseconds kPoll{20};

/// Notes that the condition has held; a lost connection ends what the signals were.
class WaitSink final : public xcp::IDaqRecordSink, public session::ISessionListener {
  public:
    WaitSink(watch::Watcher& watcher, session::IMeasured& session, session::ISessionListener& next)
        : watcher_(watcher), session_(session), next_(next) {
        session_.setListener(this);
    }
    ~WaitSink() override { session_.setListener(&next_); }
    WaitSink(const WaitSink&) = delete;
    WaitSink& operator=(const WaitSink&) = delete;

    bool held() const { return held_.load(); }

    void onRecord(const xcp::DaqRecord& record) override {
        if (!held() && watcher_.onRecord(record).stop) held_ = true;
    }
    void onStateChanged(session::SessionState state, const std::string& message,
                        const std::string& hint) override {
        takeState("", state);
        next_.onStateChanged(state, message, hint);
    }
    void onEcuStateChanged(const std::string& ecu, session::SessionState state, const std::string& message,
                           const std::string& hint) override {
        takeState(ecu, state);
        next_.onEcuStateChanged(ecu, state, message, hint);
    }

  private:
    void takeState(const std::string& ecu, session::SessionState state) {
        using session::SessionState;
        if (state == SessionState::reconnecting || state == SessionState::failed) watcher_.forget(ecu);
    }

    watch::Watcher& watcher_;
    session::IMeasured& session_;
    session::ISessionListener& next_;
    std::atomic<bool> held_{false};
};

std::string valuesText(const watch::Watcher& watcher) {
    std::string text;
    for (const watch::LastValue& value : watcher.lastValues())
        text += (text.empty() ? "" : ", ") + value.name + "=" + (value.number ? value.text : "no value came");
    return text;
}

class WaitReport final : public IReport {
  public:
    WaitReport(bool held, double seconds, std::string line, std::vector<watch::LastValue> values)
        : held_(held), seconds_(seconds), line_(std::move(line)), values_(std::move(values)) {}

    void print(Output& output) const override {
        if (held_) output.append(printableText(line_) + "\n");
    }
    void write(JsonWriter& json) const override {
        json.member("held", held_);
        json.member("seconds", seconds_);
        json.key("values").beginArray();
        for (const watch::LastValue& value : values_) {
            json.beginObject();
            json.member("name", value.name);
            if (value.number) {
                json.member("physical", *value.number);
                json.member("text", value.text);
            }
            json.endObject();
        }
        json.endArray();
    }

  private:
    const bool held_;
    const double seconds_;
    const std::string line_;
    const std::vector<watch::LastValue> values_;
};

}  // namespace

void WaitCommand::addOptions(OptionSet& options) {
    options.add("condition", text_, "EXPRESSION over signals, as 'engine_speed>700 && gear==third'")
        .required();
    options.add("--for", forText_, "Only when it has held so long without a break, as 2s");
    options.add("--timeout", timeoutText_, "How long to wait, as 30s (0s = until Ctrl-C)").showDefault();
    addReport(options, reportPath_);
}

Result<void> WaitCommand::prepare(Form /*form*/) {
    if (reportPath_) {
        auto report = TestReport::create(*reportPath_, "wait");
        if (!report) return report.error();
        report_ = std::move(report).value();
        if (auto written = writeReport("", {1, kNoResult}, Seconds(0)); !written) return written;
    }
    auto wanted = parseWanted("wait '" + text_ + "'", text_, text_);
    if (!wanted) return wanted.error();
    wanted_ = std::move(wanted).value();
    if (forText_) {
        auto time = parseTime("--for", *forText_);
        if (!time) return time.error();
        for_ = time.value();
    }
    auto timeout = parseTime("--timeout", timeoutText_);
    if (!timeout) return timeout.error();
    timeout_ = timeout.value();
    if (timeout_.count() != 0 && for_ > timeout_)
        return Error{ErrorCode::invalidArgument,
                     "--for is longer than --timeout: it could never hold so long"};
    return {};
}

int WaitCommand::unansweredCode() const {
    return kNoOneAnswered;
}

Result<void> WaitCommand::writeReport(const std::string& ecu, const Outcome& outcome, Seconds waited) const {
    if (!report_) return {};
    TestCase one{.name = text_, .message = outcome.message, .seconds = waited.count()};
    using Kind = TestCase::Outcome;
    one.outcome = outcome.exitCode == 0            ? Kind::passed
                  : outcome.exitCode == kNotWithin ? Kind::failed
                                                   : Kind::broken;
    one.details = outcome.message;
    return report_->write(ecu, waited.count(), {one});
}

void WaitCommand::notConnected(const Error& error) {
    if (auto written = writeReport("", {1, "connect: " + error.text()}, Seconds(0)); !written)
        log::error("wait: {}", written.error().text());
}

WaitCommand::Outcome WaitCommand::outcomeOf(bool held, Seconds waited, const watch::Watcher& watcher) const {
    const std::string duration = for_.count() == 0 ? "" : fmt::format(" for {}", *forText_);
    const std::string values = valuesText(watcher);
    if (held)
        return {0, fmt::format("{} held{} after {} s: {}", text_, duration, formatFixed(waited.count(), 3),
                               values)};
    return {kNotWithin,
            fmt::format("{} did not hold{} within {}: {}", text_, duration, timeoutText_, values)};
}

WaitCommand::Outcome WaitCommand::waitMeasuring(Workplace& place, watch::Watcher& watcher) const {
    session::IMeasured& session = *place.measured;
    WaitSink sink(watcher, session, *place.console);
    session::MeasurementOptions measurement;
    measurement.needed = watcher.signalNames();
    measurement.neededAlone = true;
    measurement.sink = &sink;
    measurement.onAccepted = [&](const session::MeasurementPlan& plan) {
        return watcher.bind(plan, [&](const session::PlannedSignal& signal, const std::string& name) {
            return session.isSignal(signal, name);
        });
    };
    if (const auto started = session.startMeasurement(measurement); !started) {
        place.results.failOrStopped("wait", started.error());
        return {started.error().code == ErrorCode::timeout ? kNoOneAnswered : 1, started.error().text()};
    }
    const auto start = Clock::now();
    const auto isLate = [&] { return timeout_.count() != 0 && Clock::now() - start >= timeout_; };
    const auto failed = [&] { return session.state() == session::SessionState::failed; };
    bool stopped = false;
    while (!sink.held() && !isLate() && !failed() && !stopped)
        stopped = stopToken().waitFor(kLook);
    const bool held = sink.held();
    Outcome outcome = outcomeOf(held, Clock::now() - start, watcher);
    if (!held && stopped) outcome = {1, "ended before: " + valuesText(watcher)};
    if (!held && !stopped && failed()) outcome = {1, "the connection was lost: " + valuesText(watcher)};
    if (auto ended = session.stopMeasurement(); !ended) {
        place.results.fail("stop", ended.error());
        if (outcome.exitCode == 0) outcome = {1, "stop: " + ended.error().text()};
    }
    return outcome;
}

WaitCommand::Outcome WaitCommand::waitPolling(Workplace& place, watch::Watcher& watcher) const {
    session::Session& session = *place.session;
    session::MeasurementPlan plan;
    const std::vector<std::string> names = watcher.signalNames();
    for (const std::string& name : names) {
        auto element = session.signalElement(name);
        if (!element) return {1, element.error().text()};
        plan.daq.lists.emplace_back();
        session::PlannedSignal& signal = plan.planned.emplace_back();
        signal.element = std::move(element).value();
        signal.listIndex = plan.planned.size() - 1;
    }
    auto bound = watcher.bind(plan, [&](const session::PlannedSignal& signal, const std::string& name) {
        return names[signal.listIndex] == name;
    });
    const auto failed = [&](const Error& error) -> Outcome {
        place.results.failOrStopped("wait", error);
        return {error.code == ErrorCode::timeout ? kNoOneAnswered : 1, error.text()};
    };
    if (!bound) return failed(bound.error());
    session::ValueAccess access(session.objectMemory(), session.stopToken());
    const auto start = Clock::now();
    for (std::size_t next = 0;;) {
        const auto outcome =
            access.read(names.size() - next, [&](std::size_t index) -> Result<value::Element> {
                return value::Element(plan.planned[next + index].element);
            });
        for (std::size_t i = 0; i < outcome.values.size(); ++i) {
            const auto& reading = outcome.values[i];
            if (!reading) return failed(reading.error());
            xcp::DaqRecord record;
            record.listIndex = next + i;
            record.receiveTimeNs = std::chrono::nanoseconds(Clock::now().time_since_epoch()).count();
            record.data = reading.value().bytes.data();
            record.size = reading.value().bytes.size();
            if (watcher.onRecord(record).stop) return outcomeOf(true, Clock::now() - start, watcher);
        }
        next = (next + outcome.values.size()) % names.size();
        if (timeout_.count() != 0 && Clock::now() - start >= timeout_)
            return outcomeOf(false, Clock::now() - start, watcher);
        if (stopToken().waitFor(kPoll)) return {1, "ended before: " + valuesText(watcher)};
    }
}

int WaitCommand::run(Workplace& place) {
    return place.ecus != nullptr ? runOnSeveral(place) : wait(place);
}

int WaitCommand::runOnSeveral(Workplace& place) {
    const auto errors = openEcus(place, ecusToMeasure(*place.ecus, {}, false, {&wanted_->expression}));
    for (const std::optional<Error>& error : errors) {
        if (!error) continue;
        notConnected(*error);
        return error->code == ErrorCode::timeout ? kNoOneAnswered : 1;
    }
    session::JointMeasurement joint(*place.ecus);
    joint.setListener(place.console);
    place.measured = &joint;
    const int exitCode = wait(place);
    place.measured = nullptr;
    return exitCode;
}

int WaitCommand::wait(Workplace& place) {
    session::IMeasured& session = *place.measured;
    const auto start = Clock::now();
    watch::Watcher watcher;
    Outcome outcome;
    auto resolved = wanted_->expression.resolve(
        [&session](const std::string& name) { return session.signalElement(name); });
    if (!resolved) {
        outcome.message = wanted_->place + ": " + resolved.error().text();
        place.results.fail(
            "", {resolved.error().code, outcome.message, 0, Error::kNoDetail, resolved.error().hint});
    } else {
        if (for_.count() != 0) wanted_->expression.holdFor(for_);
        watcher.addStop(std::move(wanted_->expression));
        const std::string limit = timeout_.count() == 0 ? "" : ", up to " + timeoutText_;
        printMessage(printableText("waiting for " + text_ + limit) + " - Ctrl-C to stop\n");
        // Of several ECUs the clocks are needed: none is asked over and over instead.
        const bool measures = place.ecus != nullptr || place.session->daqCapabilities();
        outcome = measures ? waitMeasuring(place, watcher) : waitPolling(place, watcher);
        for (const std::string& remark : watcher.takeRemarks())
            log::warn("wait: {}", remark);
        const Seconds waited = Clock::now() - start;
        place.results.show(
            WaitReport(outcome.exitCode == 0, waited.count(), outcome.message, watcher.lastValues()));
        if (outcome.exitCode == kNotWithin) place.results.fail("wait", {ErrorCode::timeout, outcome.message});
    }
    if (auto written = writeReport(session.ecuName(), outcome, Clock::now() - start); !written) {
        place.results.fail("report", written.error());
        return 1;
    }
    return outcome.exitCode;
}

}  // namespace lm::cli
