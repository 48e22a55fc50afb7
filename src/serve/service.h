// `serve`: one ECU, held for all who ask over HTTP.
//
// Threads: start(), stop() and the destructor belong to the owner. Handlers run on the server's workers: what
// needs the session goes to the desk. Lifetime: the session is borrowed until stop().
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/result.h"
#include "http/server.h"
#include "http/stored_body.h"
#include "serve/chronicle.h"
#include "serve/ecu_desk.h"
#include "serve/forms.h"
#include "serve/record_hub.h"
#include "serve/recording_desk.h"
#include "serve/recordings.h"
#include "session/change_log.h"
#include "session/session.h"

namespace lm::serve {

struct ServiceOptions {
    std::string listenHost = "127.0.0.1";
    std::uint16_t listenPort = 0;
    bool readOnly = false;
    bool allowWrites = false;  ///< at an address that other machines reach
    std::filesystem::path recordings = {};
    std::string version = {};           ///< of the program
    std::filesystem::path socket = {};  ///< empty: no Unix socket
    /// What else the server answers.
    std::function<void(http::Router&)> addRoutes = {};
    /// See EcuDesk.
    EcuDesk::Alone alone = {};
};

/// Where the service is found, to be told its user and no one else.
struct Addresses {
    std::string http;  ///< with the token in its fragment
    bool readOnly = false;
    bool reachable = false;  ///< from other machines
};

Addresses addressesOf(const std::string& host, std::uint16_t port, const std::string& token, bool readOnly,
                      bool reachable);

class Service final : private session::ISessionListener {
  public:
    Service(session::Session& session, ServiceOptions options, Forms forms);
    ~Service() override;
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Errors: those of the sockets and threads.
    Result<Addresses> start();
    /// Ends recording, measurement and all connections. Error: of the recording or the measurement.
    Result<void> stop();

    /// The directory of the recording that runs; empty without one. From any thread.
    std::string recordingDirectory() const;

  private:
    using Milliseconds = std::chrono::milliseconds;

    void onStateChanged(session::SessionState state, const std::string& message,
                        const std::string& hint) override;
    void onParameterWritten(const storage::ParameterWrite& write) override;

    http::Router routes();
    void addGeneral(http::Router& router);
    void addObjects(http::Router& router);
    void addValues(http::Router& router);
    void addMeasurement(http::Router& router);
    void addRecordings(http::Router& router);

    /// A handler of this ECU; another name is answered with 404.
    http::Handler ofEcu(void (Service::*method)(http::Request&, const http::Reply&));
    void atDesk(const http::Request& request, const http::Reply& reply, bool needsEcu, EcuDesk::Task task);

    void describe(http::Request& request, const http::Reply& reply);
    void list(http::Request& request, const http::Reply& reply);
    void groups(http::Request& request, const http::Reply& reply);
    void names(http::Request& request, const http::Reply& reply);
    void state(http::Request& request, const http::Reply& reply);
    void readOne(http::Request& request, const http::Reply& reply);
    void readMany(http::Request& request, const http::Reply& reply);
    void writeOne(http::Request& request, const http::Reply& reply);
    void writeMany(http::Request& request, const http::Reply& reply);
    void plan(http::Request& request, const http::Reply& reply);
    void measure(http::Request& request, const http::Reply& reply);
    void endMeasurement(http::Request& request, const http::Reply& reply);
    void stream(http::Request& request, const http::Reply& reply);
    void startRecording(http::Request& request, const http::Reply& reply);
    void stopRecording(http::Request& request, const http::Reply& reply);
    void mark(http::Request& request, const http::Reply& reply);

    void read(const http::Request& request, const http::Reply& reply, std::vector<std::string> names,
              bool one);
    void noteHeld(const std::string& name, const std::string& client, const session::WriteOutcome& outcome,
                  session::ChangeLog& changes);
    std::string write(session::Session& session, const std::string& name, const std::string& text,
                      const std::string& client, bool& failed);
    Result<session::PlanSummary> begin(session::Session& session, const std::vector<std::string>& signals);
    Result<void> end(session::Session& session);
    void noteOfEcu(const std::string& line);
    void look(session::Session& session);
    nlohmann::json stateJson() const;
    nlohmann::json planJson(const session::MeasurementPlan& plan, session::Session& session) const;

    session::Session& session_;
    const ServiceOptions options_;
    const Forms forms_;
    const std::string name_;
    Chronicle log_;
    Chronicle writes_;
    RecordHub hub_;
    Recordings recordings_;
    RecordingDesk recordingDesk_;
    EcuDesk desk_;
    std::shared_ptr<http::Access> tcp_;
    std::unique_ptr<http::Server> server_;
    std::once_flag namesMade_;
    std::unique_ptr<http::StoredBody> namesBody_;

    std::optional<std::vector<std::string>>
        asked_;  ///< of the measurement that runs; the desk's thread alone

    mutable std::mutex mutex_;
    nlohmann::json statistics_;         ///< of the measurement, a tenth of a second old at most
    std::vector<std::string> signals_;  ///< as asked for
    bool measuring_ = false;
};

/// Where a request may ask for more time: `limitMs` of its query, 10 s by default. Error: invalidArgument.
Result<std::chrono::milliseconds> limitOf(const http::Request& request);

}  // namespace lm::serve
