#include "serve/viewer.h"

#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "serve/page_routes.h"

namespace lm::serve {
namespace {

/// Of the first directory: of its folder, when it is a recording itself.
std::filesystem::path layoutFolderOf(const std::vector<std::filesystem::path>& directories) {
    std::error_code failure;
    const std::filesystem::path first = std::filesystem::canonical(directories.front(), failure);
    if (failure) return {};
    return isRecordingAt(first) ? first.parent_path() : first;
}

}  // namespace

Viewer::Viewer(ViewerOptions options, RecordingDesk::InfoForm info, StopToken stop)
    : options_(std::move(options)),
      shelf_(options_.directories),
      desk_(shelf_, layoutFolderOf(options_.directories), std::move(info), std::move(stop)) {}

Result<std::size_t> Viewer::count() const {
    const Result<std::vector<std::string>> names = shelf_.names();
    if (!names) return names.error();
    return names.value().size();
}

Result<Addresses> Viewer::start() {
    Result<http::BoundPort> bound = http::listenAtPort(options_.listenHost, options_.listenPort);
    if (!bound) return bound.error();
    http::BoundPort& port = bound.value();
    Result<std::shared_ptr<http::Access>> access = http::Access::create(
        http::AccessSetup{false, true, port.port, {options_.listenHost}, port.anyAddress});
    if (!access) return access.error();
    if (Result<void> desk = desk_.start(); !desk) return desk.error();
    http::Router router;
    addPage(router);
    addLogin(router, access.value());
    router.add("GET", "/v1", {}, [this](http::Request&, const http::Reply& reply) {
        reply.send(nlohmann::json{{"schema", 1},
                                  {"kind", "view"},
                                  {"version", options_.version},
                                  {"ecus", nlohmann::json::array()},
                                  {"readOnly", true},
                                  {"canWrite", false},
                                  {"recordings", true},
                                  {"layouts", desk_.layouts().kept()}});
    });
    desk_.addRoutes(router);
    std::vector<http::Listener> listeners;
    listeners.push_back({std::move(port.socket), access.value()});
    Result<std::unique_ptr<http::Server>> server =
        http::Server::start(std::move(router), {}, std::move(listeners));
    if (!server) return server.error();
    server_ = std::move(server).value();
    return addressesOf(options_.listenHost, port.port, access.value()->token(), true, !port.loopback);
}

void Viewer::stop() {
    desk_.stop();
    if (server_) server_->stop();
}

}  // namespace lm::serve
