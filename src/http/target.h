// The target of a request, and its JSON body: bytes of others, on their way to types of ours.
//
// Threads: pure functions. Lifetime: results own everything.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/result.h"
#include "http/message.h"

namespace lm::http {

struct Target {
    std::vector<std::string> path;
    Texts query;
};

/// "/v1/ecus/engine%201?limit=5". Each segment and each text of the query is decoded by itself and is then
/// UTF-8 without control characters; a segment is never empty, "." or "..". Errors (invalidArgument) name the
/// place.
Result<Target> parseTarget(std::string_view text);

/// An object with no more than `depth` objects and arrays in each other; an empty body is an empty object.
/// Errors (invalidArgument): "the body ...".
Result<nlohmann::json> parseBody(std::string_view text, std::size_t depth);

}  // namespace lm::http
