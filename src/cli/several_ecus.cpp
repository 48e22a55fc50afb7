#include "cli/several_ecus.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "cli/sharing.h"
#include "cli/stop_signal.h"
#include "core/log.h"

namespace lm::cli {
namespace {

std::string namesOf(const std::vector<session::SessionConfig>& ecus) {
    std::vector<std::string> names;
    names.reserve(ecus.size());
    for (const session::SessionConfig& ecu : ecus)
        names.push_back(ecu.name);
    return session::joinedNames(names);
}

}  // namespace

Result<void> chooseEcu(const Options& options, session::ConfigDocument& document) {
    if (document.isOfSeveral()) {
        if (auto named = session::nameEcus(document.ecus, stopToken()); !named) return named;
    }
    if (!options.ecu) {
        const std::string_view own = optionOfOneEcu(options);
        if (!document.isOfSeveral() || own.empty()) return {};
        return Error{
            ErrorCode::invalidArgument,
            fmt::format("{} is of one ECU, and the configuration has several: --ecu chooses one ({})", own,
                        namesOf(document.ecus))};
    }
    if (!document.isOfSeveral()) {
        return Error{ErrorCode::invalidArgument,
                     "--ecu chooses one of several ECUs, and the configuration has no \"ecus\""};
    }
    auto& ecus = document.ecus;
    const auto found =
        std::find_if(ecus.begin(), ecus.end(), [&](const auto& ecu) { return ecu.name == *options.ecu; });
    if (found == ecus.end()) {
        return Error{ErrorCode::notFound, fmt::format("--ecu: there is no ECU '{}' in the configuration ({})",
                                                      *options.ecu, namesOf(ecus))};
    }
    document.one = std::move(*found);
    ecus.clear();
    return {};
}

value::NumberStyle numberStyle(const Workplace& place) {
    if (place.ecus == nullptr) return numberStyle(place.session->config());
    const auto all = place.ecus->all();
    const bool exact = std::any_of(
        all.begin(), all.end(), [&](std::size_t ecu) { return place.ecus->at(ecu).config().display.exact; });
    return exact ? value::NumberStyle::exact : value::NumberStyle::formatted;
}

Error needsOneEcu(const std::string& command, const std::vector<session::SessionConfig>& ecus) {
    const std::string what = command.empty() ? "this" : "'" + command + "'";
    return {ErrorCode::invalidArgument,
            fmt::format("{} works on one ECU: --ecu NAME chooses it ({})", what, namesOf(ecus))};
}

std::vector<EcuWord> ecuWords(const session::NameSearch& names, const session::EcuGroup& group,
                              const std::vector<std::string>& typed) {
    std::vector<EcuWord> words;
    for (const std::string& text : typed) {
        auto found = names.find(text);
        if (!found) {
            words.push_back({0, text, text, found.error()});
            continue;
        }
        for (session::NameSearch::Found& one : found.value())
            words.push_back({one.ecu, one.text, group.name(one.ecu) + "/" + one.text, std::nullopt});
    }
    return words;
}

std::vector<std::optional<Error>> openEcus(Workplace& place, std::vector<std::size_t> ecus) {
    std::sort(ecus.begin(), ecus.end());
    ecus.erase(std::unique(ecus.begin(), ecus.end()), ecus.end());
    std::vector<std::optional<Error>> errors(place.ecus->count());
    const auto opened = place.ecus->tryEach(ecus, [](session::Session& session) { return session.open(); });
    for (std::size_t i = 0; i < ecus.size(); ++i) {
        if (opened[i]) continue;
        errors[ecus[i]] = opened[i].error();
        place.results.failOrStopped("connect", opened[i].error(), place.ecus->name(ecus[i]));
    }
    return errors;
}

void startSharing(Workplace& place, bool readOnly) {
    if (place.ecus == nullptr) return place.sharing->start(*place.session, readOnly);
    for (const std::size_t ecu : place.ecus->all()) {
        Sharing& sharing = *place.ecuSharings->at(ecu);
        session::Session& session = place.ecus->at(ecu);
        const log::Subject subject(place.ecus->name(ecu));
        const bool isOpen = session.state() != session::SessionState::disconnected;
        isOpen ? sharing.start(session, readOnly) : sharing.stop();
    }
}

void stopSharing(Workplace& place) {
    // The servers end later, so that the ECU is stopped at once.
    if (place.ecus == nullptr) return place.sharing->endWork();
    for (const auto& sharing : *place.ecuSharings)
        sharing->endWork();
}

std::vector<std::size_t> ecusToMeasure(const session::EcuGroup& group,
                                       const std::vector<std::string>& signals, bool configured,
                                       const std::vector<const watch::Expression*>& watched) {
    const session::NameSearch names = group.names();
    std::vector<std::size_t> ecus;
    const auto add = [&](const std::string& text) {
        // What is wrong with it is told where it is used: it may be the text of a table.
        const auto found = names.find(text);
        if (!found) return;
        for (const session::NameSearch::Found& one : found.value())
            ecus.push_back(one.ecu);
    };
    for (const std::string& text : signals)
        add(text);
    for (const watch::Expression* const expression : watched) {
        for (const watch::Node& node : expression->nodes()) {
            if (node.kind == watch::NodeKind::word) add(node.name);
        }
    }
    if (configured && signals.empty()) {
        for (const std::size_t ecu : group.all()) {
            if (!group.at(ecu).config().measurement.empty()) ecus.push_back(ecu);
        }
    }
    return ecus.empty() ? group.all() : ecus;
}

}  // namespace lm::cli
