// Measurement, recordings and streams of `serve`.
#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "core/file_write.h"
#include "core/text.h"
#include "exporter/export_recording.h"
#include "http/target.h"
#include "serve/service.h"
#include "session/measurement_plan.h"
#include "storage/read/recording_reader.h"

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

std::shared_ptr<Measured> measuredOf(const session::MeasurementPlan& plan) {
    auto measured = std::make_shared<Measured>();
    for (const session::PlannedSignal& signal : plan.planned) {
        measured->signals.push_back(
            {signal.element.name, signal.element, signal.listIndex, signal.recordOffset});
    }
    measured->startNs = std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
    measured->startUtcNs = utcNs();
    return measured;
}

/// An open file that has no name any more, piece by piece.
http::Response fileResponse(UniqueFd file, std::uint64_t size, const std::string& name) {
    http::Response response;
    response.contentType = "application/octet-stream";
    response.headers.emplace_back("Content-Disposition", fmt::format("attachment; filename=\"{}\"", name));
    response.length = size;
    auto shared = std::make_shared<UniqueFd>(std::move(file));
    response.more = [shared]() -> Result<std::string> {
        std::string piece(std::size_t{256} << 10U, '\0');
        ssize_t count = 0;
        do {
            count = ::read(shared->get(), piece.data(), piece.size());
        } while (count < 0 && errno == EINTR);
        if (count < 0) return Error::fromErrno(errno, "cannot read an export");
        piece.resize(static_cast<std::size_t>(count));
        return piece;
    };
    return response;
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
    router.add("GET", "/v1/recordings", {}, [this](http::Request&, const http::Reply& reply) {
        const Result<std::vector<std::string>> names = recordings_.names();
        names ? reply.send(json{{"recordings", names.value()}}) : reply.fail(names.error());
    });
    router.add("GET", "/v1/recordings/{name}", {}, [this](http::Request& request, const http::Reply& reply) {
        const Result<std::filesystem::path> path = recordings_.pathOf(request.part("name"));
        if (!path) return reply.fail(path.error());
        Result<std::string> text = forms_.recordingInfo(path.value());
        if (!text) return reply.fail(text.error());
        http::Response response;
        response.body = std::move(text).value() + "\n";
        reply.send(std::move(response));
    });
    router.add("GET", "/v1/recordings/{name}/export", {},
               [this](http::Request& request, const http::Reply& reply) { exportRecording(request, reply); });
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
    options.onPlanned = [this](const session::MeasurementPlan& plan) { hub_.setMeasured(measuredOf(plan)); };
    Result<session::PlanSummary> summary = session.startMeasurement(options);
    if (!summary) {
        hub_.setMeasured(nullptr);
        return summary;
    }
    const std::lock_guard lock(mutex_);
    signals_.clear();
    for (const MeasuredSignal& signal : hub_.measured()->signals)
        signals_.push_back(signal.name);
    measuring_ = true;
    return summary;
}

/// With the recording, which needs its records.
Result<void> Service::end(session::Session& session) {
    {
        const std::lock_guard lock(mutex_);
        if (!std::exchange(measuring_, false)) return {};
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
               if (Result<void> ended = end(session); !ended) return reply.fail(ended.error());
               const auto summary = begin(session, signals);
               if (!summary) {
                   desk_.doubt();
                   return reply.fail(summary.error());
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
    const std::shared_ptr<http::EventStream> stream = reply.stream();
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
               log_.note("info", fmt::format("{} records to {}", client, name));
               reply.send(recordings_.state());
           });
}

void Service::stopRecording(http::Request& request, const http::Reply& reply) {
    atDesk(request, reply, false, [this, reply](session::Session& session) {
        session.handOnHeldRecords();
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

void Service::exportRecording(http::Request& request, const http::Reply& reply) {
    const Result<std::filesystem::path> path = recordings_.pathOf(request.part("name"));
    if (!path) return reply.fail(path.error());
    const std::string form = request.queryText("form").empty() ? "mf4" : request.queryText("form");
    if (form != "mf4" && form != "csv")
        return reply.fail(Error{ErrorCode::invalidArgument, "form: mf4 or csv"});
    const std::unique_lock lock(exporting_, std::try_to_lock);
    if (!lock.owns_lock()) return reply.fail(Error{ErrorCode::wouldBlock, "another export is running"});
    const Result<storage::RecordingReader> recording = storage::RecordingReader::open(path.value());
    if (!recording) return reply.fail(recording.error());
    exporter::ExportOptions options;
    options.output =
        path.value().parent_path() / fmt::format(".export-{}-{}.{}", ::getpid(), request.connection, form);
    options.format = form == "mf4" ? exporter::Format::mf4 : exporter::Format::csv;
    options.merge = true;
    const auto done = exporter::exportRecording(recording.value(), options, {}, session_.stopToken());
    if (!done) return reply.fail(done.error());
    UniqueFd file(::open(options.output.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat facts {};
    const bool opened = file.valid() && ::fstat(file.get(), &facts) == 0;
    const int failure = errno;
    if (::unlink(options.output.c_str()) != 0)
        log_.note("warning", "cannot remove " + options.output.string());
    if (!opened) return reply.fail(Error::fromErrno(failure, "cannot read the export"));
    reply.send(fileResponse(std::move(file), static_cast<std::uint64_t>(facts.st_size),
                            request.part("name") + "." + form));
}

}  // namespace lm::serve
