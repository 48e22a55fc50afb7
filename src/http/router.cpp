#include "http/router.h"

#include <optional>
#include <utility>

#include <fmt/format.h>

namespace lm::http {
namespace {

bool isName(const std::string& segment) {
    return segment.size() > 2 && segment.front() == '{' && segment.back() == '}';
}

std::optional<Texts> match(const Route& route, const std::vector<std::string>& path) {
    if (route.segments.size() != path.size()) return std::nullopt;
    Texts parts;
    for (std::size_t i = 0; i < path.size(); ++i) {
        const std::string& segment = route.segments[i];
        if (isName(segment)) {
            parts[segment.substr(1, segment.size() - 2)] = path[i];
        } else if (segment != path[i]) {
            return std::nullopt;
        }
    }
    return parts;
}

}  // namespace

void Router::add(std::string_view method, std::string_view pattern, Demand demand, Handler handler) {
    Route route{std::string(method), {}, demand, std::move(handler)};
    while (pattern.size() > 1) {
        pattern.remove_prefix(1);
        const std::size_t end = std::min(pattern.find('/'), pattern.size());
        route.segments.emplace_back(pattern.substr(0, end));
        pattern.remove_prefix(end);
    }
    routes_.push_back(std::move(route));
}

std::variant<const Route*, Response> Router::find(Request& request) const {
    std::string allowed;
    for (const Route& route : routes_) {
        std::optional<Texts> parts = match(route, request.path);
        if (!parts) continue;
        if (route.method == request.method) {
            request.parts = std::move(*parts);
            return &route;
        }
        allowed += (allowed.empty() ? "" : ", ") + route.method;
    }
    if (allowed.empty()) return errorResponse(Error{ErrorCode::notFound, "there is nothing at this address"});
    Response response =
        errorResponse(405, Error{ErrorCode::unsupported, fmt::format("this address takes {} only", allowed)});
    response.headers.emplace_back("Allow", allowed);
    return response;
}

}  // namespace lm::http
