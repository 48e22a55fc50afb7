#include "http/access.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <sys/random.h>

#include <fmt/format.h>

#include "core/text.h"

namespace lm::http {
namespace {

constexpr std::size_t kMaxCookies = 64;

Result<std::string> randomText() {
    std::array<unsigned char, 32> bytes{};
    std::size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t count = ::getrandom(bytes.data() + got, bytes.size() - got, 0);
        if (count < 0 && errno != EINTR)
            return Error::fromErrno(errno, "cannot get random bytes for a token");
        if (count > 0) got += static_cast<std::size_t>(count);
    }
    std::string text;
    for (const unsigned char byte : bytes)
        text += fmt::format("{:02x}", byte);
    return text;
}

/// In a time that tells nothing of where they differ.
bool isSame(std::string_view given, std::string_view secret) {
    if (secret.empty() || given.size() != secret.size()) return false;
    unsigned difference = 0;
    for (std::size_t i = 0; i < secret.size(); ++i) {
        difference |= static_cast<unsigned char>(given[i]) ^ static_cast<unsigned char>(secret[i]);
    }
    return difference == 0;
}

Response refusal(int status, ErrorCode code, std::string message, std::string hint = {}) {
    Error error{code, std::move(message)};
    error.hint = std::move(hint);
    return errorResponse(status, error);
}

/// "[::1]:80" is "::1"; none when what follows is not this port.
std::optional<std::string> withoutPort(std::string_view host, std::uint16_t port) {
    const std::string end = fmt::format(":{}", port);
    if (host.ends_with(end)) {
        host.remove_suffix(end.size());
    } else if (port != 80) {
        return std::nullopt;
    }
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    std::string lowered;
    lowerAsciiInto(lowered, host);
    return lowered;
}

bool isNumeric(const std::string& host) {
    in6_addr address{};
    return ::inet_pton(AF_INET, host.c_str(), &address) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

}  // namespace

Result<std::shared_ptr<Access>> Access::create(AccessSetup setup) {
    if (setup.local) return std::shared_ptr<Access>(new Access(std::move(setup), {}));
    Result<std::string> token = randomText();
    if (!token) return token.error();
    return std::shared_ptr<Access>(new Access(std::move(setup), std::move(token).value()));
}

bool Access::isOwnHost(std::string_view text) const {
    if (setup_.local) return true;
    const std::optional<std::string> host = withoutPort(text, setup_.port);
    if (!host) return false;
    if (*host == "127.0.0.1" || *host == "localhost" || *host == "::1") return true;
    return std::find(setup_.hosts.begin(), setup_.hosts.end(), *host) != setup_.hosts.end() ||
           (setup_.anyAddress && isNumeric(*host));
}

bool Access::isOwnOrigin(const Credentials& credentials) const {
    return credentials.origin.empty() ||
           (!setup_.local && credentials.origin == "http://" + credentials.host);
}

std::string Access::cookieName() const {
    // Browsers keep the cookies of all ports of a host together.
    return fmt::format("xcplumo-{}", setup_.port);
}

bool Access::isKnown(const Credentials& credentials) const {
    constexpr std::string_view kBearer = "Bearer ";
    std::string_view text = credentials.authorization;
    if (text.starts_with(kBearer) && isSame(text.substr(kBearer.size()), token_)) return true;
    const std::string begin = cookieName() + "=";
    for (std::string_view rest = credentials.cookie; !rest.empty();) {
        const std::size_t end = std::min(rest.find(';'), rest.size());
        std::string_view cookie = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        while (cookie.starts_with(' '))
            cookie.remove_prefix(1);
        if (!cookie.starts_with(begin)) continue;
        cookie.remove_prefix(begin.size());
        const std::lock_guard lock(mutex_);
        if (std::any_of(cookies_.begin(), cookies_.end(),
                        [&](const std::string& own) { return isSame(cookie, own); })) {
            return true;
        }
    }
    return false;
}

std::optional<Response> Access::judge(const Credentials& credentials, const Demand& demand) const {
    if (credentials.repeated) {
        return refusal(400, ErrorCode::invalidArgument,
                       "Host, Origin, Authorization or Cookie stands twice in the head of the request");
    }
    if (!isOwnHost(credentials.host)) {
        return refusal(421, ErrorCode::permissionDenied, "the request names another host than this server",
                       "use the address that the server printed");
    }
    if (!isOwnOrigin(credentials)) {
        return refusal(403, ErrorCode::permissionDenied, "the request comes from a page of another server");
    }
    if (demand.localOnly && !setup_.local) {
        return refusal(403, ErrorCode::permissionDenied, "this is for the Unix socket only");
    }
    if (!setup_.local && !demand.open && !isKnown(credentials)) {
        Response response =
            refusal(401, ErrorCode::permissionDenied, "the request has no valid token",
                    "send `Authorization: Bearer TOKEN` with the token of the printed address");
        response.headers.emplace_back("WWW-Authenticate", "Bearer");
        return response;
    }
    if (demand.writes && setup_.readOnly) {
        return refusal(
            403, ErrorCode::permissionDenied, "this server only reads",
            "`serve` without --read-only, and with --allow-writes at an address of other machines");
    }
    return std::nullopt;
}

Result<std::string> Access::login(std::string_view token) {
    if (!isSame(token, token_))
        return Error{ErrorCode::permissionDenied, "this is not the token of this server"};
    Result<std::string> secret = randomText();
    if (!secret) return secret;
    const std::lock_guard lock(mutex_);
    if (cookies_.size() == kMaxCookies) cookies_.pop_front();
    cookies_.push_back(secret.value());
    return fmt::format("{}={}; HttpOnly; SameSite=Strict; Path=/", cookieName(), secret.value());
}

}  // namespace lm::http
