#include "session/signal_choice.h"

#include <optional>
#include <set>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/printable_text.h"
#include "core/text.h"
#include "storage/read/signal_selection.h"

namespace lm::session {
namespace {

Error invalid(std::string message) {
    return {ErrorCode::invalidArgument, std::move(message)};
}

// No word of an A2L file holds one of * ? @, so none of its names is mistaken for a pattern or cut.

bool isPattern(std::string_view name) {
    return name.find_first_of("*?") != std::string_view::npos;
}

struct SignalText {
    std::string_view name;
    std::optional<std::string_view> event;
};

SignalText split(std::string_view text) {
    const std::size_t at = text.find('@');
    if (at == std::string_view::npos) return {text, std::nullopt};
    return {text.substr(0, at), text.substr(at + 1)};
}

/// As it is shown: what the ECU sends may have NUL bytes behind the name.
std::string shownName(const xcp::EventChannel& event) {
    return printableText(event.name.c_str());
}

/// The channel of that name, none when there is none. Error: several have it.
Result<std::optional<std::uint16_t>> eventNamed(std::string_view name,
                                                const xcp::DaqCapabilities& capabilities) {
    std::optional<std::uint16_t> found;
    for (const xcp::EventChannel& event : capabilities.events) {
        if (name.empty() || shownName(event) != name) continue;
        if (found) {
            return invalid(fmt::format("events {} and {} are both called '{}', give the number", *found,
                                       event.number, name));
        }
        found = event.number;
    }
    return found;
}

Result<std::uint16_t> eventOf(std::string_view text, const xcp::DaqCapabilities& capabilities) {
    const auto number = parseUnsigned(text, NumberBase::decimal, UINT16_MAX);
    if (number.ok()) return static_cast<std::uint16_t>(number.value());
    const auto named = eventNamed(text, capabilities);
    if (!named.ok()) return named.error();
    if (!named.value()) return number.error();
    return *named.value();
}

/// What all texts have in common, and what has been chosen so far.
class Chooser {
  public:
    Chooser(const a2l::Description& description, const DefaultEvent& bare,
            const xcp::DaqCapabilities& capabilities, const CanMeasure& canMeasure)
        : description_(description), bare_(bare), capabilities_(capabilities), canMeasure_(canMeasure) {}

    Result<void> add(std::string_view text) {
        const SignalText signal = split(text);
        Events events{bare_.number, bare_.automatic};
        if (signal.event || !bare_.name.empty()) {
            const auto event = signal.event ? eventOf(*signal.event, capabilities_) : bareEvent();
            if (!event.ok()) return event.error();
            events = {event.value(), false};
        }
        if (isPattern(signal.name)) return addPattern(signal.name, events);
        auto object = a2l::findScalar(description_, signal.name);
        if (!object.ok()) return object.error();
        take(chosenOf(std::move(object).value(), events));
        return {};
    }

    SignalChoice result() && { return std::move(choice_); }

  private:
    struct Events {
        std::uint16_t number;
        bool automatic;  ///< the object's own first
    };

    /// What a pattern came upon.
    struct Matches {
        std::size_t all = 0;
        std::size_t leftOut = 0;
        std::string firstReason = {};
    };

    Result<std::uint16_t> bareEvent() const {
        const auto named = eventNamed(bare_.name, capabilities_);
        if (!named.ok()) return named.error();
        if (named.value()) return *named.value();
        return invalid("no event is called '" + bare_.name +
                       "': the event of bare names is a number, a name that `info` prints, or auto");
    }

    static ChosenSignal chosenOf(a2l::Object object, Events events) {
        const std::uint16_t event =
            events.automatic ? object.preferredEvent.value_or(events.number) : events.number;
        return {std::move(object), event};
    }

    void take(ChosenSignal signal) {
        known_.emplace(signal.object.name, signal.event);
        choice_.chosen.push_back(std::move(signal));
    }

    Result<void> addPattern(std::string_view pattern, Events events) {
        const char* kind = "measurement";
        Matches matches = addMatches(description_.measurements, pattern, events);
        if (matches.all == 0) {
            kind = "parameter";
            matches = addMatches(description_.characteristics, pattern, events);
        }
        if (matches.all == 0) {
            return Error{ErrorCode::notFound, fmt::format("'{}' matches no name of the A2L", pattern)};
        }
        if (matches.leftOut == 0) return {};
        if (matches.leftOut == matches.all) {
            return Error{ErrorCode::notFound,
                         fmt::format("'{}' matches {} {}(s), none of which can be measured: {}", pattern,
                                     matches.all, kind, matches.firstReason)};
        }
        choice_.warnings.push_back(fmt::format(
            "'{}' matches {} {}(s), {} of which cannot be measured and are left out: {}{}", pattern,
            matches.all, kind, matches.leftOut, matches.firstReason, matches.leftOut > 1 ? ", ..." : ""));
        return {};
    }

    Matches addMatches(const auto& objects, std::string_view pattern, Events events) {
        Matches matches;
        for (const auto& source : objects) {
            if (!storage::matchesPattern(source.name, pattern)) continue;
            ++matches.all;
            if (auto added = addMatch(source.name, events); !added.ok()) {
                if (matches.leftOut++ == 0) matches.firstReason = added.error().text();
            }
        }
        return matches;
    }

    Result<void> addMatch(std::string_view name, Events events) {
        auto object = a2l::findScalar(description_, name);
        if (!object.ok()) return object.error();
        ChosenSignal signal = chosenOf(std::move(object).value(), events);
        if (known_.contains({signal.object.name, signal.event})) return {};
        if (auto able = canMeasure_(signal); !able.ok()) return able;
        take(std::move(signal));
        return {};
    }

    const a2l::Description& description_;
    const DefaultEvent& bare_;
    const xcp::DaqCapabilities& capabilities_;
    const CanMeasure& canMeasure_;
    std::set<std::pair<std::string, std::uint16_t>> known_;
    SignalChoice choice_;
};

}  // namespace

Result<SignalChoice> chooseSignals(const a2l::Description& description, const std::vector<std::string>& texts,
                                   const DefaultEvent& bare, const xcp::DaqCapabilities& capabilities,
                                   const CanMeasure& canMeasure) {
    Chooser chooser(description, bare, capabilities, canMeasure);
    for (const std::string& text : texts) {
        if (auto added = chooser.add(text); !added.ok()) return added.error();
    }
    return std::move(chooser).result();
}

}  // namespace lm::session
