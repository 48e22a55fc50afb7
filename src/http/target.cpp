#include "http/target.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "core/text.h"

namespace lm::http {
namespace {

constexpr std::size_t kMaxSegments = 16;
constexpr std::size_t kMaxQueryTexts = 64;

Error badTarget(std::string_view reason) {
    return {ErrorCode::invalidArgument, fmt::format("the address of the request {}", reason)};
}

/// '+' is a blank in a query alone.
Result<std::string> decoded(std::string_view text, bool inQuery) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            const auto high = i + 2 < text.size() ? hexDigit(text[i + 1]) : std::nullopt;
            const auto low = high ? hexDigit(text[i + 2]) : std::nullopt;
            if (!low) return badTarget(fmt::format("has a '%' without two hexadecimal digits: {}", plain));
            c = static_cast<char>(*high * 16 + *low);
            i += 2;
        } else if (c == '+' && inQuery) {
            c = ' ';
        }
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return badTarget("has a control character");
        plain += c;
    }
    if (!isValidUtf8(plain)) return badTarget("is not UTF-8");
    return plain;
}

/// Calls `take` with each piece between the separators.
template <typename Take>
Result<void> split(std::string_view text, char separator, std::size_t most, const Take& take) {
    for (std::size_t count = 0;; ++count) {
        if (count == most) return badTarget("has too many parts");
        const std::size_t end = text.find(separator);
        if (Result<void> taken = take(text.substr(0, end)); !taken) return taken;
        if (end == std::string_view::npos) return {};
        text.remove_prefix(end + 1);
    }
}

Result<void> addSegment(Target& target, std::string_view text) {
    Result<std::string> segment = decoded(text, false);
    if (!segment) return segment.error();
    const std::string& plain = segment.value();
    if (plain.empty() || plain == "." || plain == "..") return badTarget("has an empty part, '.' or '..'");
    target.path.push_back(std::move(segment).value());
    return {};
}

Result<void> addQuery(Target& target, std::string_view text) {
    if (text.empty()) return {};
    const std::size_t equals = text.find('=');
    Result<std::string> name = decoded(text.substr(0, equals), true);
    if (!name) return name.error();
    Result<std::string> value =
        decoded(equals == std::string_view::npos ? std::string_view() : text.substr(equals + 1), true);
    if (!value) return value.error();
    if (!target.query.emplace(name.value(), std::move(value).value()).second) {
        return badTarget(fmt::format("has '{}' twice", name.value()));
    }
    return {};
}

/// Whether brackets outside of texts go deeper; the parser afterwards judges all else.
bool isDeeper(std::string_view text, std::size_t depth) {
    std::size_t open = 0;
    bool inText = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inText) {
            if (c == '\\') ++i;
            if (c == '"') inText = false;
        } else if (c == '"') {
            inText = true;
        } else if (c == '[' || c == '{') {
            if (++open > depth) return true;
        } else if ((c == ']' || c == '}') && open > 0) {
            --open;
        }
    }
    return false;
}

}  // namespace

Result<Target> parseTarget(std::string_view text) {
    if (text.empty() || text.front() != '/') return badTarget("does not begin with '/'");
    Target target;
    const std::size_t question = text.find('?');
    const std::string_view path =
        text.substr(1, question == std::string_view::npos ? question : question - 1);
    if (!path.empty()) {
        Result<void> done =
            split(path, '/', kMaxSegments, [&](std::string_view part) { return addSegment(target, part); });
        if (!done) return done.error();
    }
    if (question == std::string_view::npos) return target;
    Result<void> done = split(text.substr(question + 1), '&', kMaxQueryTexts,
                              [&](std::string_view part) { return addQuery(target, part); });
    if (!done) return done.error();
    return target;
}

Result<nlohmann::json> parseBody(std::string_view text, std::size_t depth) {
    if (text.empty()) return nlohmann::json::object();
    if (isDeeper(text, depth)) {
        return Error{ErrorCode::invalidArgument,
                     fmt::format("the body has more than {} objects and arrays in each other", depth)};
    }
    try {
        nlohmann::json json = nlohmann::json::parse(text);
        if (json.is_object()) return json;
    } catch (const nlohmann::json::exception& failure) {
        return Error{ErrorCode::invalidArgument, fmt::format("the body is not JSON: {}", failure.what())};
    }
    return Error{ErrorCode::invalidArgument, "the body is not a JSON object"};
}

}  // namespace lm::http
