#include "serve/service.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "core/text.h"
#include "http/target.h"
#include "serve/page_routes.h"

namespace lm::serve {
namespace {

using nlohmann::json;

}  // namespace

Result<std::chrono::milliseconds> limitOf(const http::Request& request) {
    constexpr std::uint64_t kMost = 600000;
    const std::string text = request.queryText("limitMs");
    if (text.empty()) return std::chrono::milliseconds(10000);
    const Result<std::uint64_t> limit = parseUnsigned(text, NumberBase::decimal, kMost);
    if (!limit || limit.value() == 0) {
        return Error{ErrorCode::invalidArgument,
                     fmt::format("limitMs: '{}' is no number from 1 to {}", text, kMost)};
    }
    return std::chrono::milliseconds(limit.value());
}

Addresses addressesOf(const std::string& host, std::uint16_t port, const std::string& token, bool readOnly,
                      bool reachable) {
    const bool isV6 = host.find(':') != std::string::npos;
    return {fmt::format("http://{}:{}/#token={}", isV6 ? "[" + host + "]" : host, port, token), readOnly,
            reachable};
}

Service::Service(session::Session& session, ServiceOptions options, Forms forms)
    : session_(session),
      options_(std::move(options)),
      forms_(std::move(forms)),
      name_(session.ecuName()),
      recordings_(options_.recordings, hub_),
      recordingDesk_(recordings_, options_.recordings, forms_.recordingInfo, session.stopToken()),
      desk_(session, log_, options_.alone) {}

Service::~Service() {
    static_cast<void>(stop());
}

Result<Addresses> Service::start() {
    Result<http::BoundPort> bound = http::listenAtPort(options_.listenHost, options_.listenPort);
    if (!bound) return bound.error();
    http::BoundPort& port = bound.value();
    const bool readOnly = options_.readOnly || (!port.loopback && !options_.allowWrites);
    http::AccessSetup setup{false, readOnly, port.port, {options_.listenHost}, port.anyAddress};
    Result<std::shared_ptr<http::Access>> access = http::Access::create(setup);
    if (!access) return access.error();
    tcp_ = access.value();
    std::vector<http::Listener> listeners;
    listeners.push_back({std::move(port.socket), tcp_});
    if (!options_.socket.empty()) {
        Result<UniqueFd> socket = http::listenAtPath(options_.socket);
        if (!socket) return socket.error();
        http::AccessSetup local;
        local.local = true;
        local.readOnly = options_.readOnly;
        Result<std::shared_ptr<http::Access>> own = http::Access::create(local);
        if (!own) return own.error();
        listeners.push_back({std::move(socket).value(), own.value()});
    }
    session_.setListener(this);
    if (Result<void> hub =
            hub_.start(std::make_unique<StreamNews>([this] { return stateJson(); }, log_, writes_));
        !hub)
        return hub.error();
    if (Result<void> desk = desk_.start([this](session::Session& at) { look(at); }); !desk)
        return desk.error();
    if (Result<void> readers = recordingDesk_.start(); !readers) return readers.error();
    Result<std::unique_ptr<http::Server>> server = http::Server::start(routes(), {}, std::move(listeners));
    if (!server) return server.error();
    {
        // Clients may ask already.
        const std::lock_guard lock(mutex_);
        server_ = std::move(server).value();
    }
    return addressesOf(options_.listenHost, port.port, tcp_->token(), readOnly, !port.loopback);
}

Result<void> Service::stop() {
    desk_.stop();
    recordingDesk_.stop();
    if (server_) server_->stop();
    Result<void> ended = end(session_);
    hub_.stop();
    session_.setListener(nullptr);
    return ended;
}

void Service::onStateChanged(session::SessionState state, const std::string& message,
                             const std::string& hint) {
    const char* name = session::sessionStateName(state);
    log_.note({{"level", "info"}, {"text", message.empty() ? name : fmt::format("{}: {}", name, message)}});
    if (!hint.empty()) log_.note("info", "hint: " + hint);
    if (state == session::SessionState::reconnecting) recordings_.noteOutage(true, message);
    if (state == session::SessionState::measuring) recordings_.noteOutage(false, message);
}

/// By a program that goes through this one; what clients of this server write is noted where it is written.
void Service::onParameterWritten(const storage::ParameterWrite& write) {
    recordings_.noteWrite(write);
    writes_.note({{"name", write.name},
                  {"client", write.by},
                  {"old", {{"text", write.before}}},
                  {"new", {{"text", write.after}}}});
}

std::string Service::recordingDirectory() const {
    const json state = recordings_.state();
    return state.is_null() ? "" : (options_.recordings / state["name"].get<std::string>()).string();
}

http::Router Service::routes() {
    http::Router router;
    addGeneral(router);
    addObjects(router);
    addValues(router);
    addMeasurement(router);
    addRecordings(router);
    recordingDesk_.addRoutes(router);
    if (options_.addRoutes) options_.addRoutes(router);
    return router;
}

http::Handler Service::ofEcu(void (Service::*method)(http::Request&, const http::Reply&)) {
    return [this, method](http::Request& request, const http::Reply& reply) {
        if (request.part("ecu") != name_) {
            return reply.fail(
                Error{ErrorCode::notFound, fmt::format("there is no ECU '{}' here", request.part("ecu"))});
        }
        (this->*method)(request, reply);
    };
}

void Service::atDesk(const http::Request& request, const http::Reply& reply, bool needsEcu,
                     EcuDesk::Task task) {
    const Result<Milliseconds> limit = limitOf(request);
    if (!limit) return reply.fail(limit.error());
    desk_.post(reply, limit.value(), needsEcu, std::move(task));
}

void Service::addGeneral(http::Router& router) {
    addPage(router);
    addLogin(router, tcp_);
    router.add("GET", "/v1", {}, [this](http::Request& request, const http::Reply& reply) {
        const bool readOnly = request.peer.local ? options_.readOnly : tcp_->readOnly();
        reply.send(json{{"schema", 1},
                        {"kind", "serve"},
                        {"version", options_.version},
                        {"ecus", json::array({{{"name", name_}, {"address", session_.ecuPlace()}}})},
                        {"readOnly", readOnly},
                        {"canWrite", !readOnly},
                        {"recordings", !options_.recordings.empty()},
                        {"layouts", recordingDesk_.layouts().kept()}});
    });
    router.add("GET", "/v1/ecus/{ecu}/state", {}, ofEcu(&Service::state));
    const auto entries = [](const Chronicle& chronicle) {
        return [&chronicle](http::Request& request, const http::Reply& reply) {
            const std::string text = request.queryText("after");
            const auto after = parseUnsigned(text.empty() ? "0" : text, NumberBase::decimal, UINT64_MAX);
            if (!after)
                return reply.fail(Error{ErrorCode::invalidArgument, "after: " + after.error().message});
            reply.send(chronicle.after(after.value()));
        };
    };
    router.add("GET", "/v1/ecus/{ecu}/log", {}, entries(log_));
    router.add("GET", "/v1/ecus/{ecu}/writes", {}, entries(writes_));
}

void Service::state(http::Request& /*request*/, const http::Reply& reply) {
    reply.send(stateJson());
}

json Service::stateJson() const {
    http::ServerCounts counts;
    json statistics;
    {
        const std::lock_guard lock(mutex_);
        if (server_) counts = server_->counts();
        statistics = statistics_;
    }
    const session::SessionState state = session_.state();
    const bool isIdle = state == session::SessionState::connected || state == session::SessionState::failed;
    return json{{"ecu", name_},
                {"address", session_.ecuPlace()},
                {"state", isIdle && !desk_.connected() ? "disconnected" : session::sessionStateName(state)},
                {"measurement", std::move(statistics)},
                {"recording", recordings_.state()},
                {"clients",
                 {{"connections", counts.connections},
                  {"streams", counts.streams},
                  {"requests", counts.requests},
                  {"refused", counts.refused},
                  {"displaced", counts.displaced}}}};
}

/// On the desk's thread: what state() tells without waiting for it.
void Service::look(session::Session& session) {
    bool measuring = false;
    {
        const std::lock_guard lock(mutex_);
        measuring = measuring_;
    }
    if (!measuring) return;
    if (session.state() == session::SessionState::failed) {
        if (Result<void> ended = end(session); !ended) log_.note("error", ended.error().text());
        return;
    }
    const session::MeasurementStats stats = session.statistics();
    json told{{"records", stats.records},           {"lostOdts", stats.lostOdts},
              {"missedCycles", stats.missedCycles}, {"overloads", stats.overloads},
              {"reconnects", stats.reconnects},     {"incompleteRecords", stats.incompleteRecords}};
    for (const session::MediumCounter& counter : stats.medium)
        told["medium"][std::string(counter.name)] = counter.value;
    const std::lock_guard lock(mutex_);
    told["signals"] = signals_;
    statistics_ = std::move(told);
}

}  // namespace lm::serve
