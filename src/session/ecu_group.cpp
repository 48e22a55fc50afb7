#include "session/ecu_group.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <system_error>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "a2l/object_name.h"
#include "a2l/similar_names.h"
#include "core/log.h"
#include "core/text.h"
#include "core/thread.h"
#include "session/name_pattern.h"
#include "storage/read/signal_selection.h"

namespace lm::session {
namespace {

bool hasWildcards(std::string_view text) {
    return text.find_first_of("*?") != std::string_view::npos;
}

/// Without @EVENT and /PRESCALER, which no name of an A2L has.
std::string_view nameIn(std::string_view text) {
    return text.substr(0, text.find_first_of("@/"));
}

bool hasName(const a2l::Description& description, std::string_view name) {
    if (hasWildcards(name) && isNamePattern(description, name))
        return !namesMatching(description, name).empty();
    // NAME[*] stands for elements of an object.
    return a2l::parseObjectName(description, name).ok() ||
           (hasWildcards(name) && a2l::parseObjectName(description, name.substr(0, name.find('['))).ok());
}

/// Where an ECU is reached, told as the same text for the same place.
std::string placeOf(const Session& session) {
    const std::string& port = session.config().serial.port;
    if (!session.ecuPlace().starts_with("serial:")) return session.ecuPlace();
    std::error_code unknown;
    return "serial:" + std::filesystem::weakly_canonical(port, unknown).string();
}

}  // namespace

Error ofEcu(const std::string& name, Error error) {
    error.message = name + ": " + error.message;
    return error;
}

std::string joinedNames(const std::vector<std::string>& names) {
    return fmt::format("{}", fmt::join(names, ", "));
}

Result<void> nameEcus(std::vector<SessionConfig>& ecus, const StopToken& stop) {
    std::vector<std::string> names;
    for (SessionConfig& ecu : ecus) {
        if (ecu.name.empty() && ecu.a2l.empty()) return noA2lConfigured();
        if (ecu.name.empty()) {
            auto description = a2l::load(ecu.a2l, stop);
            if (!description.ok()) return description.error();
            ecu.name = description.value().moduleName;
        }
        std::string wrong = whyNoEcuName(ecu.name);
        if (wrong.empty() && std::find(names.begin(), names.end(), ecu.name) != names.end())
            wrong = "two ECUs are called '" + ecu.name + "'";
        if (!wrong.empty()) {
            Error error{ErrorCode::invalidArgument, "configuration: ecus: " + wrong};
            error.hint =
                "\"name\" in each of the \"ecus\" tells them apart; without, the A2L's module counts";
            return error;
        }
        names.push_back(ecu.name);
    }
    return {};
}

EcuText splitEcu(std::string_view text, const std::vector<std::string>& names) {
    const std::size_t slash = text.find('/');
    if (slash == std::string_view::npos) return {{}, text};
    const std::string_view before = text.substr(0, slash);
    EcuText found{{}, text.substr(slash + 1)};
    for (std::size_t i = 0; i < names.size(); ++i) {
        const bool isMeant =
            hasWildcards(before) ? storage::matchesPattern(names[i], before) : names[i] == before;
        if (isMeant) found.ecus.push_back(i);
    }
    return found.ecus.empty() ? EcuText{{}, text} : found;
}

// --- Names

NameSearch::NameSearch(std::vector<Ecu> ecus) : ecus_(std::move(ecus)) {
    for (const Ecu& ecu : ecus_)
        names_.push_back(ecu.name);
}

Error NameSearch::unknown(std::string_view text, std::string_view name) const {
    Error error{ErrorCode::notFound,
                fmt::format("'{}' is in the A2L of none of the ECUs {}", text, joinedNames(names_))};
    for (const Ecu& ecu : ecus_) {
        if (error.hint.empty()) error.hint = a2l::unknownNameHint(*ecu.description, name);
    }
    return error;
}

Result<std::vector<NameSearch::Found>> NameSearch::find(std::string_view text) const {
    const EcuText split = splitEcu(text, names_);
    std::vector<Found> found;
    for (const std::size_t ecu : split.ecus)
        found.push_back({ecu, std::string(split.rest)});
    if (!found.empty()) return found;
    const std::string_view name = nameIn(text);
    std::vector<std::string> whole;
    for (std::size_t i = 0; i < ecus_.size(); ++i) {
        if (!hasName(*ecus_[i].description, name)) continue;
        found.push_back({i, std::string(text)});
        whole.push_back(ecus_[i].name + "/" + std::string(text));
    }
    if (found.empty()) return unknown(text, name);
    if (found.size() > 1 && !hasWildcards(name)) {
        return Error{ErrorCode::invalidArgument,
                     fmt::format("'{}' is a name of several ECUs: {}", text, fmt::join(whole, " or "))};
    }
    return found;
}

// --- The group

Result<std::unique_ptr<EcuGroup>> EcuGroup::create(std::vector<SessionConfig> configs, ChannelPool& pool,
                                                   const StopToken& stop, const SessionOptions& options) {
    if (auto named = nameEcus(configs, stop); !named.ok()) return named.error();
    std::vector<Ecu> ecus;
    std::map<std::string, std::string> places;
    for (SessionConfig& config : configs) {
        const std::string name = config.name;
        const log::Subject subject(name);
        auto session = Session::create(std::move(config), {}, pool, stop, options);
        if (!session.ok()) return ofEcu(name, session.error());
        const auto [other, isNew] = places.emplace(placeOf(*session.value()), name);
        if (!isNew) {
            Error error{ErrorCode::alreadyOpen,
                        fmt::format("ECUs {} and {} are both at {}", other->second, name, other->first)};
            error.hint = "one ECU serves one master, and one entry of \"ecus\" is one ECU";
            return error;
        }
        ecus.push_back({name, std::move(session).value()});
    }
    return std::unique_ptr<EcuGroup>(new EcuGroup(std::move(ecus)));
}

std::vector<std::size_t> EcuGroup::all() const {
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < ecus_.size(); ++i)
        numbers.push_back(i);
    return numbers;
}

NameSearch EcuGroup::names() const {
    std::vector<NameSearch::Ecu> ecus;
    for (const Ecu& ecu : ecus_)
        ecus.push_back({ecu.name, &ecu.session->description()});
    return NameSearch(std::move(ecus));
}

void EcuGroup::sideBySide(const std::vector<std::size_t>& ecus,
                          const std::function<void(std::size_t)>& work) const {
    std::vector<std::thread> threads;
    for (const std::size_t ecu : ecus) {
        const log::Subject subject(name(ecu));
        auto thread = startThread("cannot ask the ECUs side by side", [&work, ecu] { work(ecu); });
        if (thread.ok()) {
            threads.push_back(std::move(thread).value());
        } else {
            work(ecu);  // one after the other is slower, and no worse
        }
    }
    for (std::thread& thread : threads)
        thread.join();
}

std::vector<Result<void>> EcuGroup::tryEach(const std::vector<std::size_t>& ecus,
                                            const std::function<Result<void>(Session&)>& work) const {
    std::vector<Result<void>> byEcu(ecus_.size());
    sideBySide(ecus, [&](std::size_t ecu) {
        byEcu[ecu] = work(at(ecu));
        if (!byEcu[ecu].ok()) byEcu[ecu] = ofEcu(name(ecu), byEcu[ecu].error());
    });
    std::vector<Result<void>> results;
    results.reserve(ecus.size());
    for (const std::size_t ecu : ecus)
        results.push_back(std::move(byEcu[ecu]));
    return results;
}

Result<void> EcuGroup::close() const {
    for (Result<void>& closed : tryEach(all(), [](Session& session) { return session.close(); })) {
        if (!closed.ok()) return std::move(closed);
    }
    return {};
}

}  // namespace lm::session
