// From "GET /v1/ecus/engine/state" to the function that answers it.
//
// Threads: filled by one, then constant. Lifetime: what the handlers borrow must outlive the server.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "http/access.h"
#include "http/message.h"
#include "http/reply.h"

namespace lm::http {

/// Called on a worker thread. It answers there, or keeps the reply and answers later from any thread; it
/// never waits for an ECU itself, as others wait for the same few threads.
using Handler = std::function<void(Request&, const Reply&)>;

struct Route {
    std::string method;
    std::vector<std::string> segments;  ///< "{NAME}" stands for any text
    Demand demand;
    Handler handler;
};

class Router {
  public:
    /// `pattern` as "/v1/ecus/{ecu}/state".
    void add(std::string_view method, std::string_view pattern, Demand demand, Handler handler);

    /// The route, with Request::parts filled; or 404, or 405 with Allow.
    std::variant<const Route*, Response> find(Request& request) const;

    const std::vector<Route>& routes() const { return routes_; }

  private:
    std::vector<Route> routes_;
};

}  // namespace lm::http
