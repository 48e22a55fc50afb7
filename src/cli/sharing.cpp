#include "cli/sharing.h"

#include <algorithm>
#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "cli/message_output.h"
#include "core/log.h"
#include "core/printable_text.h"
#include "host/host_medium.h"
#include "host/runtime_folder.h"

namespace lm::cli {
namespace {

using std::chrono::milliseconds;

/// What others are shown of this program.
host::Holder self(const std::string& place) {
    return {::getpid(), host::userName(::geteuid()), host::commandOf(::getpid()), place};
}

/// As long as this command would wait for an ECU that does not answer: its own limit, not that of others.
milliseconds patience(const session::SessionConfig& config) {
    constexpr milliseconds kUsual{4'000};
    if (config.xcp.connectTimeout) return std::max(*config.xcp.connectTimeout, milliseconds(100));
    if (!config.xcp.timeoutsMs) return kUsual;
    return std::max(2 * milliseconds((*config.xcp.timeoutsMs)[0]), milliseconds(1'000));
}

Error heldBy(const host::Holder& holder, const char* hint) {
    Error error{ErrorCode::alreadyOpen, fmt::format("{} is held by {}", holder.place, holder.text())};
    error.hint = hint;
    return error;
}

}  // namespace

Result<std::unique_ptr<session::IMedium>> Sharing::adopt(std::unique_ptr<session::IMedium> medium,
                                                         const session::SessionConfig& config,
                                                         const StopToken& stop) {
    if (options_.direct) return medium;
    const std::string& place = medium->texts().place;
    a2l_ = host::A2lFile::of(config.a2l);
    const auto found = host::findHost(place);
    if (!found) log::info("nothing is shared with other programs: {}", found.error().text());
    if (found && found.value()) {
        if (role_ == SharingRole::attaches) return attach(std::move(medium), *found.value(), config, stop);
        return heldBy(found.value()->holder,
                      "get, set and others go through that program; --direct goes past it, which may end its "
                      "measurement");
    }
    if (const auto other = options_.takeOver ? std::nullopt : host::Presence::find(place))
        return heldBy(*other, "--take-over goes on, which may end what that program does");
    if (role_ == SharingRole::holds) {
        if (auto claimed = claim(place); !claimed) return claimed.error();
    }
    return medium;
}

Result<void> Sharing::claim(const std::string& place) {
    auto claimed = host::HostClaim::take(self(place));
    if (claimed) {
        claim_.emplace(std::move(claimed).value());
        return {};
    }
    if (claimed.error().code == ErrorCode::alreadyOpen) return claimed.error();
    log::info("nothing is shared with other programs: {}", claimed.error().text());
    return {};
}

Result<std::unique_ptr<session::IMedium>> Sharing::attach(std::unique_ptr<session::IMedium> medium,
                                                          const host::FoundHost& found,
                                                          const session::SessionConfig& config,
                                                          const StopToken& stop) {
    auto link = host::HostLink::attach(found, host::commandOf(::getpid()), a2l_, stop);
    if (!link) return link.error();
    log::info("through {}", link.value()->host().text());
    const auto tell = [](const host::HostFacts& facts) {
        printMessage(printableText("through " + facts.text()) + "\n");
    };
    return std::unique_ptr<session::IMedium>(std::make_unique<host::HostMedium>(
        std::move(medium), std::move(link).value(), patience(config), tell, stop));
}

void Sharing::start(session::Session& session, bool readOnly) {
    if (!claim_ || host_) return;
    if (auto served = serve(session, readOnly); !served) {
        log::warn("nothing is shared with other programs: {}", served.error().text());
        stop();
    }
}

Result<void> Sharing::startHost(session::Session& session, bool readOnly,
                                std::function<std::string()> recording) {
    auto host = host::Host::start({session, self(session.ecuPlace()), a2l_, readOnly, std::move(recording)});
    if (!host) return host.error();
    host_ = std::move(host).value();
    return {};
}

host::Host* Sharing::host(session::Session& session, bool readOnly, std::function<std::string()> recording) {
    if (!claim_) return nullptr;
    if (auto started = startHost(session, readOnly, std::move(recording)); !started) {
        log::warn("nothing is shared with other programs: {}", started.error().text());
        stop();
    }
    return host_.get();
}

void Sharing::endWork() {
    if (host_) host_->stop();
}

Result<void> Sharing::serve(session::Session& session, bool readOnly) {
    if (auto started = startHost(session, readOnly, {}); !started) return started;
    http::Router router;
    host_->addRoutes(router);
    http::AccessSetup own;
    own.local = true;
    auto access = http::Access::create(own);
    if (!access) return access.error();
    auto socket = http::listenAtPath(claim_->socketPath());
    if (!socket) return socket.error();
    std::vector<http::Listener> listeners;
    listeners.push_back({std::move(socket).value(), std::move(access).value()});
    auto server = http::Server::start(std::move(router), {}, std::move(listeners));
    if (!server) return server.error();
    server_ = std::move(server).value();
    return {};
}

Result<std::optional<host::Host::Own>> Sharing::own() {
    if (!host_) return std::optional<host::Host::Own>();
    auto held = host_->own();
    if (!held) return held.error();
    return std::optional<host::Host::Own>(std::move(held).value());
}

void Sharing::stop() {
    if (host_) host_->stop();
    server_.reset();
    host_.reset();
    claim_.reset();
}

}  // namespace lm::cli
