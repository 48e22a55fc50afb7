// Objects and values of `serve`.
#include <algorithm>
#include <span>
#include <utility>

#include <fmt/format.h>

#include "http/target.h"
#include "serve/service.h"
#include "session/change_log.h"
#include "session/object_bytes.h"
#include "session/parameter_reading.h"

namespace lm::serve {
namespace {

using nlohmann::json;

constexpr std::size_t kBodyDepth = 12;
constexpr std::size_t kMostAnswer = std::size_t{64} << 20U;
constexpr std::size_t kMostNames = 100000;

http::Response textResponse(std::string text) {
    http::Response response;
    response.body = std::move(text) + "\n";
    return response;
}

/// What `set` would be given: numbers with all their digits, lists as they are nested.
Result<std::string> typedText(const json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_number() || value.is_array()) return value.dump();
    return Error{ErrorCode::invalidArgument, "\"value\" is a number, a text or a list"};
}

}  // namespace

void Service::addObjects(http::Router& router) {
    router.add("GET", "/v1/ecus/{ecu}/objects", {}, ofEcu(&Service::list));
    router.add("GET", "/v1/ecus/{ecu}/objects/{name}", {}, ofEcu(&Service::describe));
    router.add("GET", "/v1/ecus/{ecu}/groups", {}, ofEcu(&Service::groups));
    router.add("GET", "/v1/ecus/{ecu}/names", {}, ofEcu(&Service::names));
}

void Service::list(http::Request& request, const http::Reply& reply) {
    Search search;
    search.pattern = request.queryText("pattern");
    search.kind = request.queryText("kind");
    search.group = request.queryText("group");
    search.function = request.queryText("function");
    search.parts = request.query.contains("parts");
    search.descriptions = request.query.contains("descriptions");
    Result<std::string> text = forms_.list(session_.description(), search);
    text ? reply.send(textResponse(std::move(text).value())) : reply.fail(text.error());
}

void Service::describe(http::Request& request, const http::Reply& reply) {
    Result<std::string> text = forms_.describe(session_.description(), request.part("name"));
    text ? reply.send(textResponse(std::move(text).value())) : reply.fail(text.error(), request.part("name"));
}

/// Hundreds of thousands are gathered and compressed once, away from the workers.
void Service::names(http::Request& request, const http::Reply& reply) {
    recordingDesk_.post([this, request, reply] {
        std::call_once(namesMade_, [this] {
            namesBody_ = std::make_unique<http::StoredBody>("text/plain; charset=utf-8",
                                                            forms_.names(session_.description()));
        });
        reply.send(namesBody_->responseTo(request));
    });
}

void Service::groups(http::Request& /*request*/, const http::Reply& reply) {
    const a2l::Description& description = session_.description();
    const auto names = [](const std::vector<a2l::Folder>& folders) {
        json list = json::array();
        for (const a2l::Folder& folder : folders)
            list.push_back({{"name", folder.name}, {"description", folder.longIdentifier}});
        return list;
    };
    reply.send(json{{"groups", names(description.groups)}, {"functions", names(description.functions)}});
}

void Service::addValues(http::Router& router) {
    const http::Demand writes{true, false, false};
    router.add("GET", "/v1/ecus/{ecu}/values/{name}", {}, ofEcu(&Service::readOne));
    router.add("PUT", "/v1/ecus/{ecu}/values/{name}", writes, ofEcu(&Service::writeOne));
    router.add("POST", "/v1/ecus/{ecu}/values/read", {}, ofEcu(&Service::readMany));
    router.add("POST", "/v1/ecus/{ecu}/values/write", writes, ofEcu(&Service::writeMany));
}

void Service::readOne(http::Request& request, const http::Reply& reply) {
    read(request, reply, {request.part("name")}, true);
}

void Service::readMany(http::Request& request, const http::Reply& reply) {
    const Result<json> body = http::parseBody(request.body, kBodyDepth);
    if (!body) return reply.fail(body.error());
    auto names = body.value().at("names").get<std::vector<std::string>>();
    if (names.size() > kMostNames) {
        return reply.fail(Error{ErrorCode::invalidArgument, fmt::format("more than {} names", kMostNames)});
    }
    read(request, reply, std::move(names), false);
}

void Service::read(const http::Request& request, const http::Reply& reply, std::vector<std::string> names,
                   bool one) {
    const Result<Milliseconds> limit = limitOf(request);
    if (!limit) return reply.fail(limit.error());
    const auto end = EcuDesk::Clock::now() + limit.value();
    atDesk(
        request, reply, true, [this, reply, names = std::move(names), one, end](session::Session& session) {
            std::string text;
            const auto add = [&](const std::string& piece, const Error* error) {
                if (!text.empty()) text += ',';
                text += piece;
                if (error != nullptr && error->code == ErrorCode::timeout) desk_.doubt();
            };
            for (std::span<const std::string> rest(names); !rest.empty();) {
                // Others wait, and so does the memory.
                if (text.size() > kMostAnswer)
                    return reply.fail(Error{ErrorCode::invalidArgument,
                                            fmt::format("the answer is above {} MiB", kMostAnswer >> 20U)});
                if (!text.empty() && EcuDesk::Clock::now() > end) {
                    return reply.fail(
                        Error{ErrorCode::timeout, fmt::format("{} of {} values are read within the limit",
                                                              names.size() - rest.size(), names.size())});
                }
                const auto count = static_cast<std::size_t>(
                    std::find_if(rest.begin(), rest.end(),
                                 [&](const std::string& name) { return !session.objects().isScalar(name); }) -
                    rest.begin());
                if (count == 0) {
                    const auto reading = session.readObject(rest.front());
                    if (one && !reading) {
                        if (reading.error().code == ErrorCode::timeout) desk_.doubt();
                        return reply.fail(reading.error(), rest.front());
                    }
                    add(forms_.object(rest.front(), reading), reading ? nullptr : &reading.error());
                    rest = rest.subspan(1);
                    continue;
                }
                const auto values = session.read(rest.first(count));
                for (std::size_t i = 0; i < values.size(); ++i) {
                    if (one && !values[i]) {
                        if (values[i].error().code == ErrorCode::timeout) desk_.doubt();
                        return reply.fail(values[i].error(), rest[i]);
                    }
                    add(forms_.reading(rest[i], values[i]), values[i] ? nullptr : &values[i].error());
                }
                rest = rest.subspan(values.size());
            }
            reply.send(textResponse(one ? text : "{\"values\":[" + text + "]}"));
        });
}

void Service::writeOne(http::Request& request, const http::Reply& reply) {
    const Result<json> body = http::parseBody(request.body, kBodyDepth);
    if (!body) return reply.fail(body.error());
    const Result<std::string> text = typedText(body.value().at("value"));
    if (!text) return reply.fail(text.error());
    atDesk(request, reply, true,
           [this, reply, name = request.part("name"), typed = text.value(),
            client = request.peer.address](session::Session& session) {
               bool failed = false;
               http::Response response = textResponse(write(session, name, typed, client, failed));
               if (failed) response.status = 422;
               reply.send(std::move(response));
           });
}

void Service::writeMany(http::Request& request, const http::Reply& reply) {
    const Result<json> body = http::parseBody(request.body, kBodyDepth);
    if (!body) return reply.fail(body.error());
    std::vector<std::pair<std::string, std::string>> wishes;
    for (const json& one : body.value().at("values")) {
        const Result<std::string> text = typedText(one.at("value"));
        if (!text) return reply.fail(text.error(), one.at("name").get<std::string>());
        wishes.emplace_back(one.at("name").get<std::string>(), text.value());
    }
    atDesk(
        request, reply, true,
        [this, reply, wishes = std::move(wishes), client = request.peer.address](session::Session& session) {
            std::string text;
            bool failed = false;
            for (const auto& [name, typed] : wishes) {
                if (!text.empty()) text += ',';
                text += write(session, name, typed, client, failed);
            }
            http::Response response = textResponse("{\"values\":[" + text + "]}");
            if (failed) response.status = 422;
            reply.send(std::move(response));
        });
}

/// Of a write that failed, but may have changed the ECU.
void Service::noteHeld(const std::string& name, const std::string& client,
                       const session::WriteOutcome& outcome, session::ChangeLog& changes) {
    json entry{{"name", name},
               {"client", client},
               {"old", nullptr},
               {"new", nullptr},
               {"error", outcome.value.error().text()}};
    const Result<session::Reading>& held = *outcome.held;
    if (held) {
        const session::Reading& now = held.value();
        if (now.bytes == outcome.before) return;
        entry["old"] = json::parse(forms_.value(now.element, outcome.before));
        entry["new"] = json::parse(forms_.value(now.element, now.bytes));
        changes.add(now.element.name, session::Reading{now.element, outcome.before}.physical(),
                    now.physical());
        changes.flush();
    } else {
        recordings_.noteWrite({0, name, "unknown", "unknown", "serve, " + client});
    }
    writes_.note(std::move(entry));
}

std::string Service::write(session::Session& session, const std::string& name, const std::string& text,
                           const std::string& client, bool& failed) {
    session::ChangeLog changes(name_, "serve, " + client,
                               [this](std::string_view object, const std::string& before,
                                      const std::string& after, const std::string& by) {
                                   recordings_.noteWrite({0, std::string(object), before, after, by});
                               });
    const auto finish = [&](const auto& value) {
        if (value) return;
        failed = true;
        if (value.error().code == ErrorCode::timeout) desk_.doubt();
    };
    if (!session.objects().isScalar(name) || session.objects().hasDependents(name)) {
        const session::WriteWish wish{name, text, {}, true, session::Relation::value, {}};
        const session::ObjectWriting writing =
            session.writeObject(wish, {[](const std::vector<std::string>&) {}});
        finish(writing.value);
        for (const session::WrittenObject& object : writing.written) {
            const auto bytes = session::bytesOfChange(object.before, object.after.image);
            if (bytes.pieces.empty()) continue;
            changes.add(session::parameterOf(object.before, {}), session::parameterOf(object.after, {}),
                        bytes);
            writes_.note({{"name", object.after.placed.object().name},
                          {"client", client},
                          {"old", json::parse(forms_.content(object.before))},
                          {"new", json::parse(forms_.content(object.after))}});
        }
        changes.flush();
        return forms_.objectWrite(wish, writing);
    }
    const session::WriteOutcome outcome = session.write(name, text, {});
    finish(outcome.value);
    if (outcome.value) {
        const session::Reading& now = outcome.value.value();
        json entry{{"name", name},
                   {"client", client},
                   {"old", nullptr},
                   {"new", json::parse(forms_.value(now.element, now.bytes))}};
        if (outcome.before.size() >= now.element.size())
            entry["old"] = json::parse(forms_.value(now.element, outcome.before));
        changes.add(now.element.name, session::Reading{now.element, outcome.before}.physical(),
                    now.physical());
        changes.flush();
        writes_.note(std::move(entry));
    }
    if (!outcome.value && outcome.held && !outcome.before.empty()) noteHeld(name, client, outcome, changes);
    return forms_.write(name, text, outcome);
}

}  // namespace lm::serve
