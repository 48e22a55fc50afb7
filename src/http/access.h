// Who may ask: decides by the head of a request alone, before anything of its body is read.
//
// A Unix socket asks for no token, as only its user can open it. A TCP port asks for it always: other users
// of the machine reach 127.0.0.1, and so does every page that a browser shows. Host is checked against names
// that someone pointed at this address (rebinding), Origin against pages of others.
//
// Threads: judge() and login() from any thread. Lifetime: owns everything. No text that it gives holds the
// token.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "http/message.h"

namespace lm::http {

/// What counts of a head; empty: it has none. `repeated`: one of them stands there twice.
struct Credentials {
    std::string host;
    std::string origin;
    std::string authorization;
    std::string cookie;
    bool repeated = false;
};

/// What a route asks of who calls it.
struct Demand {
    bool writes = false;     ///< refused by a server that only reads
    bool open = false;       ///< needs no token
    bool localOnly = false;  ///< over a Unix socket alone
};

struct AccessSetup {
    bool local = false;
    bool readOnly = false;
    std::uint16_t port = 0;          ///< of TCP
    std::vector<std::string> hosts;  ///< names and addresses, beside the loopback ones
    bool anyAddress = false;         ///< every numeric address is this machine's
};

class Access {
  public:
    /// Makes a token of 256 random bits for TCP. Error: that the system gave no random bytes.
    static Result<std::shared_ptr<Access>> create(AccessSetup setup);
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;

    bool local() const { return setup_.local; }
    bool readOnly() const { return setup_.readOnly; }
    const std::string& token() const { return token_; }

    /// None: the request may go on.
    std::optional<Response> judge(const Credentials& credentials, const Demand& demand) const;

    /// The Set-Cookie text for who holds the token: a secret of its own, HttpOnly and SameSite=Strict. The
    /// oldest of 64 is forgotten for a new one. None for another token.
    Result<std::string> login(std::string_view token);

  private:
    Access(AccessSetup setup, std::string token) : setup_(std::move(setup)), token_(std::move(token)) {}

    bool isOwnHost(std::string_view host) const;
    bool isOwnOrigin(const Credentials& credentials) const;
    bool isKnown(const Credentials& credentials) const;
    std::string cookieName() const;

    const AccessSetup setup_;
    const std::string token_;
    mutable std::mutex mutex_;
    std::deque<std::string> cookies_;
};

}  // namespace lm::http
