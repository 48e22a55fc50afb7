#include "cli/command_serve.h"

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "cli/message_output.h"
#include "cli/option_set.h"
#include "cli/options.h"
#include "cli/serve_forms.h"
#include "cli/stop_signal.h"
#include "core/log.h"
#include "core/text.h"
#include "serve/service.h"
#include "session/session.h"

namespace lm::cli {
namespace {

namespace fs = std::filesystem;

struct HostPort {
    std::string host;
    std::uint16_t port = 0;
};

/// "127.0.0.1:8080", "[::1]:8080".
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

/// In a folder that is the user's alone; none where there is no such folder.
fs::path socketPath() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || *runtime == '\0') return {};
    const fs::path folder = fs::path(runtime) / "xcplumo";
    if (::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) return {};
    struct stat facts {};
    if (::lstat(folder.c_str(), &facts) != 0 || !S_ISDIR(facts.st_mode) || facts.st_uid != ::geteuid() ||
        (facts.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        return {};
    }
    return folder / fmt::format("serve-{}.sock", ::getpid());
}

}  // namespace

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
    options.socket = socketPath();
    serve::Service service(session, options, serveForms(numberStyle(session.config())));
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
    const Result<void> stopped = service.stop();
    if (!options.socket.empty() && ::unlink(options.socket.c_str()) != 0) {
        log::warn("serve: cannot remove {}", options.socket.string());
    }
    if (stopped) return 0;
    place.results.fail("serve", stopped.error());
    return 1;
}

}  // namespace lm::cli
