#include "cli/command_serve.h"

#include <memory>
#include <utility>

#include <fmt/format.h>

#include "cli/command_line.h"
#include "cli/message_output.h"
#include "cli/option_set.h"
#include "cli/options.h"
#include "cli/serve_forms.h"
#include "cli/sharing.h"
#include "cli/stop_signal.h"
#include "core/log.h"
#include "core/text.h"
#include "serve/service.h"
#include "session/session.h"

namespace lm::cli {
namespace {

namespace fs = std::filesystem;

}  // namespace

Result<HostPort> parseListen(const std::string& text) {
    const auto bad = [&] {
        return Error{ErrorCode::invalidArgument,
                     fmt::format("--listen '{}': expected ADDRESS:PORT, as in 127.0.0.1:8080", text)};
    };
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) return bad();
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string::npos) {
        return bad();
    }
    const auto port = parseUnsigned(text.substr(colon + 1), NumberBase::decimal, 65535);
    if (!port) return bad();
    return HostPort{host, static_cast<std::uint16_t>(port.value())};
}

void ServeCommand::addOptions(OptionSet& options) {
    options.add("--listen", listen_,
                "ADDRESS:PORT instead of a free port of 127.0.0.1; what other machines reach is read-only");
    options.addFlag("--read-only", readOnly_, "Nobody writes into the ECU");
    options.addFlag("--allow-writes", allowWrites_, "Other machines may write, too");
    options.add("--recordings", recordings_, "Folder of recordings; without it nothing is recorded");
}

/// Whoever serves goes on serving: a lost ECU is waited for.
void ServeCommand::overrule(session::SessionConfig& config) const {
    if (config.reconnect.policy == session::ReconnectPolicy::abort) {
        config.reconnect.policy = session::ReconnectPolicy::retryForever;
    }
}

Result<void> ServeCommand::prepare(Form /*form*/) {
    if (readOnly_ && allowWrites_) {
        return Error{ErrorCode::invalidArgument, "--read-only and --allow-writes exclude each other"};
    }
    if (!listen_.empty()) {
        const Result<HostPort> parsed = parseListen(listen_);
        if (!parsed) return parsed.error();
        host_ = parsed.value().host;
        port_ = parsed.value().port;
    }
    std::error_code failure;
    if (!recordings_.empty() && !fs::is_directory(recordings_, failure)) {
        return Error{ErrorCode::notFound,
                     fmt::format("--recordings {}: there is no such folder", recordings_)};
    }
    return {};
}

int ServeCommand::run(Workplace& place) {
    session::Session& session = *place.session;
    serve::ServiceOptions options;
    options.listenHost = host_;
    options.listenPort = port_;
    options.readOnly = readOnly_;
    options.allowWrites = allowWrites_;
    options.recordings = recordings_;
    options.version = programVersion();
    // Clients over the socket of the sharing and programs that go through this one are served at one place.
    serve::Service* running = nullptr;
    Sharing& sharing = *place.sharing;
    host::Host* const host =
        sharing.host(session, readOnly_, [&running] { return running->recordingDirectory(); });
    if (host != nullptr) {
        options.socket = sharing.socketPath();
        options.addRoutes = [host](http::Router& router) { host->addRoutes(router); };
        options.alone = [host]() -> Result<std::shared_ptr<void>> {
            auto own = host->own();
            if (!own) return own.error();
            return std::shared_ptr<void>(std::make_shared<host::Host::Own>(std::move(own).value()));
        };
    }
    serve::Service service(session, options, serveForms(numberStyle(session.config())));
    running = &service;
    const auto addresses = service.start();
    if (!addresses) {
        place.results.fail("serve", addresses.error());
        return 1;
    }
    Output& output = place.results.output();
    output.append(fmt::format("serving {} ({}){}\n", session.ecuName(), session.ecuPlace(),
                              addresses.value().readOnly ? ", read-only" : ""));
    output.append(addresses.value().http + "\n");
    if (!options.socket.empty()) output.append(fmt::format("unix:{}\n", options.socket.string()));
    output.flush();
    if (addresses.value().reachable) {
        log::warn(
            "serve: other machines reach this address, and what goes over it is not encrypted: a tunnel is "
            "the way");
    }
    while (!stopToken().waitFor(std::chrono::milliseconds(60000))) {
    }
    sharing.endWork();
    const Result<void> stopped = service.stop();
    sharing.stop();
    if (stopped) return 0;
    place.results.fail("serve", stopped.error());
    return 1;
}

}  // namespace lm::cli
