// Measurement, recordings and streams of `serve`.
#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "core/text.h"
#include "http/target.h"
#include "serve/service.h"
#include "session/measurement_plan.h"

namespace lm::serve {
namespace {

using nlohmann::json;

constexpr std::size_t kPlanDepth = 4;
constexpr std::chrono::milliseconds kLeastWindow{20};
constexpr std::chrono::milliseconds kMostWindow{60000};

/// "signals" of the body; empty: those of the configuration.
Result<std::vector<std::string>> signalsOf(const http::Request& request) {
    const Result<json> body = http::parseBody(request.body, kPlanDepth);
    if (!body) return body.error();
    if (!body.value().contains("signals")) return std::vector<std::string>();
    return body.value()["signals"].get<std::vector<std::string>>();
}

std::vector<std::string> splitNames(std::string_view text) {
    std::vector<std::string> names;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(','), text.size());
        if (end > 0) names.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return names;
}

Result<std::chrono::milliseconds> windowOf(const http::Request& request) {
    const std::string text = request.queryText("windowMs");
    if (text.empty()) return std::chrono::milliseconds(0);
    const auto window = parseUnsigned(text, NumberBase::decimal, kMostWindow.count());
    if (!window || static_cast<std::int64_t>(window.value()) < kLeastWindow.count()) {
        return Error{ErrorCode::invalidArgument,
                     fmt::format("windowMs: '{}' is no number from {} to {}", text, kLeastWindow.count(),
                                 kMostWindow.count())};
    }
    return std::chrono::milliseconds(window.value());
}

std::shared_ptr<Measured> measuredOf(const session::MeasurementPlan& plan,
                                     const xcp::DaqCapabilities& capabilities) {
    auto measured = std::make_shared<Measured>();
    for (const session::PlannedSignal& signal : plan.planned) {
        measured->signals.push_back({signal.element.name, signal.element, signal.listIndex,
                                     signal.recordOffset,
                                     session::periodNs(plan.daq.lists[signal.listIndex], capabilities)});
    }
    measured->startNs = std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
    measured->startUtcNs = utcNs();
    return measured;
}

}  // namespace

void Service::addMeasurement(http::Router& router) {
    router.add("POST", "/v1/ecus/{ecu}/measurement/plan", {}, ofEcu(&Service::plan));
    router.add("PUT", "/v1/ecus/{ecu}/measurement", {}, ofEcu(&Service::measure));
    router.add("DELETE", "/v1/ecus/{ecu}/measurement", {}, ofEcu(&Service::endMeasurement));
    router.add("GET", "/v1/ecus/{ecu}/stream", {}, ofEcu(&Service::stream));
}

void Service::addRecordings(http::Router& router) {
    router.add("PUT", "/v1/ecus/{ecu}/recording", {}, ofEcu(&Service::startRecording));
    router.add("DELETE", "/v1/ecus/{ecu}/recording", {}, ofEcu(&Service::stopRecording));
    router.add("POST", "/v1/ecus/{ecu}/recording/marks", {}, ofEcu(&Service::mark));
}

json Service::planJson(const session::MeasurementPlan& plan, session::Session& session) const {
    json lists = json::array();
    double records = 0;
    double bytes = 0;
    for (const xcp::DaqList& list : plan.daq.lists) {
        const std::uint64_t period = session::periodNs(list, *session.daqCapabilities());
        json odts = json::array();
        double size = 0;
        for (const auto& odt : list.odts) {
            odts.push_back(odt.payloadSize);
            size += static_cast<double>(odt.payloadSize);
        }
        const double rate = period == 0 ? 0 : 1e9 / static_cast<double>(period);
        records += rate;
        bytes += rate * size;
        lists.push_back(
            {{"group", lists.size()}, {"event", list.eventChannel}, {"cycleNs", period}, {"odtBytes", odts}});
    }
    json signals = json::array();
    for (const session::PlannedSignal& signal : plan.planned) {
        signals.push_back(
            {{"name", signal.element.name}, {"event", signal.event}, {"group", signal.listIndex}});
    }
    return {{"signals", std::move(signals)},
            {"lists", std::move(lists)},
            {"warnings", plan.warnings},
            {"recordsPerSecond", records},
            {"bytesPerSecond", bytes}};
}

void Service::plan(http::Request& request, const http::Reply& reply) {
    Result<std::vector<std::string>> signals = signalsOf(request);
    if (!signals) return reply.fail(signals.error());
    atDesk(request, reply, true,
           [this, reply, signals = std::move(signals).value()](session::Session& session) {
               if (hub_.measured()) {
                   return reply.fail(
                       Error{ErrorCode::alreadyOpen,
                             "a measurement is running: its plan cannot be compared with another"});
               }
               json told;
               session::MeasurementOptions options;
               options.signals = signals;
               // What is planned and accepted is given back before anything is sent.
               options.onAccepted = [&](const session::MeasurementPlan& plan) -> Result<void> {
                   told = planJson(plan, session);
                   return Error::stopped("planned only");
               };
               const auto planned = session.startMeasurement(options);
               told.is_null() ? reply.fail(planned.error()) : reply.send(told);
           });
}

Result<session::PlanSummary> Service::begin(session::Session& session,
                                            const std::vector<std::string>& signals) {
    session::MeasurementOptions options;
    options.signals = signals;
    options.sink = &hub_;
    options.recordedBySink = !options_.recordings.empty();
    options.noteTo = [this](std::int64_t, const std::string& line) { noteOfEcu(line); };
    options.onPlanned = [this, &session](const session::MeasurementPlan& plan) {
        hub_.setMeasured(measuredOf(plan, *session.daqCapabilities()));
    };
    Result<session::PlanSummary> summary = session.startMeasurement(options);
    if (!summary) {
        hub_.setMeasured(nullptr);
        return summary;
    }
    asked_ = signals;
    const std::lock_guard lock(mutex_);
    signals_.clear();
    for (const MeasuredSignal& signal : hub_.measured()->signals)
        signals_.push_back(signal.name);
    measuring_ = true;
    return summary;
}

/// What runs in the ECU, its clock, and that it is another one than before.
void Service::noteOfEcu(const std::string& line) {
    const json told = json::parse(line, nullptr, false);
    const std::string event = told.is_object() ? told.value("event", "") : "";
    if (!event.starts_with("ecu")) return;  // marks and writes are noted where they are made
    hub_.note(line);
    if (event == "ecuChanged")
        log_.note("warning", fmt::format("the ECU is not as it was: {}: {}", told.value("what", ""),
                                         told.value("text", "")));
}

/// With the recording, which needs its records.
Result<void> Service::end(session::Session& session) {
    {
        const std::lock_guard lock(mutex_);
        if (!std::exchange(measuring_, false)) return {};
        asked_.reset();
        statistics_ = nullptr;
    }
    Result<void> stopped = session.stopMeasurement();
    Result<void> recorded = recordings_.state().is_null() ? Result<void>() : recordings_.stop();
    hub_.setMeasured(nullptr);
    log_.note("info", "the measurement has ended");
    return stopped ? std::move(recorded) : std::move(stopped);
}

void Service::measure(http::Request& request, const http::Reply& reply) {
    Result<std::vector<std::string>> signals = signalsOf(request);
    if (!signals) return reply.fail(signals.error());
    atDesk(request, reply, true,
           [this, reply, signals = std::move(signals).value(),
            client = request.peer.address](session::Session& session) {
               if (!recordings_.state().is_null()) {
                   return reply.fail(
                       Error{ErrorCode::alreadyOpen, "a recording runs: its signals cannot be changed"});
               }
               const auto before = asked_;
               if (Result<void> ended = end(session); !ended) return reply.fail(ended.error());
               const auto summary = begin(session, signals);
               if (!summary) {
                   desk_.doubt();
                   Error error = summary.error();
                   const bool isBack = before && begin(session, *before);
                   if (before && !error.hint.empty()) error.hint += "; ";
                   if (before)
                       error.hint +=
                           isBack ? "what was measured before goes on" : "nothing is measured any more";
                   return reply.fail(error);
               }
               log_.note("info",
                         fmt::format("{} measures {} signal(s)", client, summary.value().signalCount));
               reply.send(json{{"signals", summary.value().signalCount},
                               {"lists", summary.value().listCount},
                               {"busLoad", summary.value().busLoad}});
           });
}

void Service::endMeasurement(http::Request& request, const http::Reply& reply) {
    atDesk(request, reply, false, [this, reply](session::Session& session) {
        const Result<void> ended = end(session);
        ended ? reply.send(json::object()) : reply.fail(ended.error());
    });
}

void Service::stream(http::Request& request, const http::Reply& reply) {
    const Result<std::chrono::milliseconds> window = windowOf(request);
    if (!window) return reply.fail(window.error());
    const std::string form = request.queryText("form");
    if (!form.empty() && form != "binary")
        return reply.fail(Error{ErrorCode::invalidArgument, "form: binary, or none for server-sent events"});
    if (!form.empty() && window.value().count() == 0)
        return reply.fail(Error{ErrorCode::invalidArgument, "form=binary needs windowMs"});
    const std::shared_ptr<http::EventStream> stream =
        reply.stream(form.empty() ? http::StreamForm::events : http::StreamForm::frames);
    if (stream) hub_.addWatcher(stream, splitNames(request.queryText("signals")), window.value());
}

void Service::startRecording(http::Request& request, const http::Reply& reply) {
    const Result<json> body = http::parseBody(request.body, kPlanDepth);
    if (!body) return reply.fail(body.error());
    atDesk(request, reply, false,
           [this, reply, name = body.value().at("name").get<std::string>(),
            client = request.peer.address](session::Session& session) {
               const Result<void> started = recordings_.start(session, name);
               if (!started) return reply.fail(started.error());
               session.noteWhatRuns();
               log_.note("info", fmt::format("{} records to {}", client, name));
               reply.send(recordings_.state());
           });
}

void Service::stopRecording(http::Request& request, const http::Reply& reply) {
    atDesk(request, reply, false, [this, reply](session::Session& session) {
        session.handOnHeldRecords();
        session.noteClock();
        const Result<void> stopped = recordings_.stop();
        if (!stopped) return reply.fail(stopped.error());
        log_.note("info", "the recording has ended");
        reply.send(json::object());
    });
}

void Service::mark(http::Request& request, const http::Reply& reply) {
    const Result<json> body = http::parseBody(request.body, kPlanDepth);
    if (!body) return reply.fail(body.error());
    constexpr std::size_t kMostBytes = 1000;
    const auto text = body.value().at("text").get<std::string>();
    if (text.size() > kMostBytes)
        return reply.fail(Error{ErrorCode::invalidArgument, "a mark has 1000 bytes at most"});
    const Result<void> marked = recordings_.mark(text);
    marked ? reply.send(json::object()) : reply.fail(marked.error());
}

}  // namespace lm::serve
