#include "http/message.h"

#include <array>

namespace lm::http {
namespace {

/// The codes of docs/json.md, in the order of ErrorCode.
constexpr std::array<std::string_view, 11> kCodes{
    "invalidArgument", "notFound",    "permissionDenied", "ioError",       "timeout", "wouldBlock",
    "notOpen",         "alreadyOpen", "unsupported",      "protocolError", "closed"};
constexpr std::array<int, 11> kStatuses{400, 404, 403, 502, 504, 503, 503, 409, 422, 502, 503};

std::string found(const Texts& texts, std::string_view name) {
    const auto text = texts.find(name);
    return text == texts.end() ? std::string() : text->second;
}

}  // namespace

bool PeerWatch::gone() const {
    const std::lock_guard lock(mutex_);
    return gone_;
}

void PeerWatch::onGone(std::function<void()> function) {
    {
        const std::lock_guard lock(mutex_);
        if (!gone_) {
            functions_.push_back(std::move(function));
            return;
        }
    }
    function();
}

void PeerWatch::tellGone() {
    std::vector<std::function<void()>> functions;
    {
        const std::lock_guard lock(mutex_);
        gone_ = true;
        functions.swap(functions_);
    }
    for (const auto& function : functions)
        function();
}

std::string Request::part(std::string_view name) const {
    return found(parts, name);
}

std::string Request::queryText(std::string_view name) const {
    return found(query, name);
}

nlohmann::json errorJson(const Error& error, std::string_view name) {
    const auto code = static_cast<std::size_t>(error.code);
    nlohmann::json json{{"code", code < kCodes.size() ? kCodes[code] : "ioError"}, {"message", error.text()}};
    if (!error.hint.empty()) json["hint"] = error.hint;
    if (!name.empty()) json["name"] = name;
    return json;
}

Response jsonResponse(const nlohmann::json& json, int status) {
    Response response;
    response.status = status;
    response.body = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    return response;
}

Response errorResponse(const Error& error, std::string_view name) {
    const auto code = static_cast<std::size_t>(error.code);
    const int status = code < kStatuses.size() ? kStatuses[code] : 502;
    return jsonResponse({{"error", errorJson(error, name)}}, status);
}

Response errorResponse(int status, const Error& error) {
    return jsonResponse({{"error", errorJson(error)}}, status);
}

}  // namespace lm::http
