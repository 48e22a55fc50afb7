// The page in the browser: its files, without a token, as they hold nothing of anyone. All that the page
// shows it asks for with the cookie that it got for the token.
//
// Threads: routes are added by one; handlers run on the workers. Lifetime: the routes own what they send.
#pragma once

#include <memory>

#include "http/access.h"
#include "http/router.h"

namespace lm::serve {

/// GET / and GET /page/{name}.
void addPage(http::Router& router);
/// POST /v1/login: a cookie for the token.
void addLogin(http::Router& router, std::shared_ptr<http::Access> access);

}  // namespace lm::serve
