// A request as handlers see it, and what they answer.
//
// Threads: plain records; a request is its handler's alone. A PeerWatch may be used from any thread.
// Lifetime: everything is owned. Functions given to a PeerWatch live until they were called or the watch is
// gone.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/result.h"

namespace lm::http {

using Texts = std::map<std::string, std::string, std::less<>>;

/// Who is at the other end of a connection.
struct Peer {
    bool local = false;  ///< a Unix socket: `pid` and `uid` are known
    std::int64_t pid = 0;
    std::uint32_t uid = 0;
    std::string address;  ///< "pid 4711", "127.0.0.1:53210"
};

/// Tells when the other end of a connection closed it, or only its sending half.
class PeerWatch {
  public:
    bool gone() const;
    /// Called once, on the server's own thread (which it must not hold up); at once when the peer is gone. It
    /// is kept as long as the connection: one that serves many requests adds to it once.
    void onGone(std::function<void()> function);
    /// The server's own.
    void tellGone();

  private:
    mutable std::mutex mutex_;
    bool gone_ = false;
    std::vector<std::function<void()>> functions_;
};

struct Request {
    std::string method;
    std::vector<std::string> path;  ///< its segments, decoded
    Texts parts;                    ///< the segments that stand for {NAME} in the route
    Texts query;
    std::string body;
    bool acceptsGzip = false;  ///< of an answer
    std::string ifNoneMatch;   ///< tags of what the client has
    Peer peer;
    std::uint64_t connection = 0;  ///< the same for all requests of one connection, never used again
    std::shared_ptr<PeerWatch> watch = std::make_shared<PeerWatch>();

    std::string part(std::string_view name) const;
    /// Empty when the query does not have it.
    std::string queryText(std::string_view name) const;
};

struct Response {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    std::string cacheControl = "no-store";
    std::vector<std::pair<std::string, std::string>> headers;
    /// A body too large to hold: called on a worker until `length` bytes came, after `body`. An error or an
    /// empty piece before that ends the connection, so that the client sees that something is missing.
    std::function<Result<std::string>()> more;
    std::uint64_t length = 0;
};

/// {"code", "message", "hint", "name"}, as in every JSON output of the program.
nlohmann::json errorJson(const Error& error, std::string_view name = {});
Response jsonResponse(const nlohmann::json& json, int status = 200);
/// {"error": {...}} with the HTTP status that fits the code.
Response errorResponse(const Error& error, std::string_view name = {});
Response errorResponse(int status, const Error& error);

}  // namespace lm::http
