#include "serve/page_routes.h"

#include <map>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "http/stored_body.h"
#include "http/target.h"
#include "page/page_files.h"

namespace lm::serve {
namespace {

using StoredFiles = std::map<std::string, http::StoredBody, std::less<>>;

/// Nothing but files of this server is loaded or asked, and no text of an A2L becomes part of the page.
constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'; "
    "trusted-types 'none'";

std::shared_ptr<const StoredFiles> storedFiles() {
    auto files = std::make_shared<StoredFiles>();
    const std::vector<std::pair<std::string, std::string>> headers{
        {"Content-Security-Policy", kPolicy},
        {"Referrer-Policy", "no-referrer"},
        {"Cross-Origin-Resource-Policy", "same-origin"}};
    for (const page::PageFile& file : page::pageFiles()) {
        files->emplace(std::string(file.name),
                       http::StoredBody(std::string(file.contentType), std::string(file.bytes), headers));
    }
    return files;
}

}  // namespace

void addPage(http::Router& router) {
    const http::Demand open{false, true, false};
    const std::shared_ptr<const StoredFiles> files = storedFiles();
    const auto send = [files](const std::string& name, const http::Request& request,
                              const http::Reply& reply) {
        const auto file = files->find(name);
        if (file != files->end()) return reply.send(file->second.responseTo(request));
        reply.fail(Error{ErrorCode::notFound, fmt::format("the page has no file '{}'", name)});
    };
    router.add("GET", "/", open, [send](http::Request& request, const http::Reply& reply) {
        send("index.html", request, reply);
    });
    router.add("GET", "/page/{name}", open, [send](http::Request& request, const http::Reply& reply) {
        send(request.part("name"), request, reply);
    });
}

void addLogin(http::Router& router, std::shared_ptr<http::Access> access) {
    const http::Demand open{false, true, false};
    router.add("POST", "/v1/login", open,
               [access = std::move(access)](http::Request& request, const http::Reply& reply) {
                   const Result<nlohmann::json> body = http::parseBody(request.body, 4);
                   if (!body) return reply.fail(body.error());
                   const Result<std::string> cookie = access->login(body.value().value("token", ""));
                   if (!cookie) return reply.send(http::errorResponse(401, cookie.error()));
                   http::Response response = http::jsonResponse(nlohmann::json::object());
                   response.headers.emplace_back("Set-Cookie", cookie.value());
                   reply.send(std::move(response));
               });
}

}  // namespace lm::serve
