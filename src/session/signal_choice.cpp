#include "session/signal_choice.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include <spdlog/fmt/fmt.h>
#include <spdlog/fmt/ranges.h>

#include "core/printable_text.h"
#include "core/text.h"
#include "session/name_pattern.h"
#include "storage/read/signal_selection.h"

namespace lm::session {
namespace {

Error invalid(std::string message) {
    return {ErrorCode::invalidArgument, std::move(message)};
}

// No word of an A2L file holds one of * ? @, so none of its names is mistaken for a pattern or cut.

struct SignalText {
    std::string_view name;
    std::optional<std::string_view> event;
};

SignalText split(std::string_view text) {
    const std::size_t at = text.find('@');
    if (at == std::string_view::npos) return {text, std::nullopt};
    return {text.substr(0, at), text.substr(at + 1)};
}

/// "REST/NUMBER"; without the number when there is none.
struct Scaled {
    std::string_view rest;
    std::optional<std::string_view> prescaler;
};

Scaled splitPrescaler(std::string_view text) {
    const std::size_t slash = text.rfind('/');
    if (slash == std::string_view::npos) return {text, std::nullopt};
    return {text.substr(0, slash), text.substr(slash + 1)};
}

Result<std::uint8_t> prescalerOf(std::string_view number, std::string_view text) {
    const auto parsed = parseUnsigned(number, NumberBase::decimal, UINT8_MAX);
    if (parsed.ok() && parsed.value() != 0) return static_cast<std::uint8_t>(parsed.value());
    return invalid(fmt::format("'{}': a prescaler is a number from 1 to 255", text));
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
    if (named.value()) return *named.value();
    Error unknown = number.error();
    for (const xcp::EventChannel& event : capabilities.events)
        unknown.hint += fmt::format("{}{} {}", unknown.hint.empty() ? "events are " : ", ", event.number,
                                    shownName(event));
    return unknown;
}

/// Names that a pattern would match but for their case, some of them; empty when there is none.
std::string caseHint(const a2l::Description& description, std::string_view pattern) {
    constexpr std::size_t kMost = 3;
    std::string small;
    std::string lowered;
    lowerAsciiInto(small, pattern);
    std::vector<std::string_view> names;
    const auto look = [&](const auto& objects) {
        for (const auto& object : objects) {
            if (names.size() == kMost) return;
            lowerAsciiInto(lowered, object.name);
            const bool asTyped = storage::matchesPattern(object.name, pattern);
            if (!asTyped && storage::matchesPattern(lowered, small)) names.emplace_back(object.name);
        }
    };
    look(description.measurements);
    look(description.characteristics);
    return names.empty() ? "" : fmt::format("names differ in case: {}", fmt::join(names, ", "));
}

/// A list has one prescaler, and the ECU samples each event channel for one list.
Result<void> checkPrescalers(const std::vector<ChosenSignal>& signals) {
    std::map<std::uint16_t, const ChosenSignal*> firsts;
    for (const ChosenSignal& signal : signals) {
        const ChosenSignal& first = *firsts.try_emplace(signal.event, &signal).first->second;
        if (first.prescaler == signal.prescaler) continue;
        Error error = invalid(fmt::format("{}@{}/{} and {}@{}/{}: signals of one event have one prescaler",
                                          first.element.name, first.event, first.prescaler,
                                          signal.element.name, signal.event, signal.prescaler));
        error.hint = "a signal without /PRESCALER has 1";
        return error;
    }
    return {};
}

/// What all texts have in common, and what has been chosen so far.
class Chooser {
  public:
    Chooser(const SignalSource& source, const CanMeasure& canMeasure)
        : source_(source), canMeasure_(canMeasure) {}

    Result<void> add(std::string_view text) {
        SignalText signal = split(text);
        const auto prescaler = takePrescaler(text, signal);
        if (!prescaler.ok()) return prescaler.error();
        const DefaultEvent& bare = source_.bareEvent;
        Events events{bare.number, bare.automatic, prescaler.value()};
        if (signal.event || !bare.name.empty()) {
            const auto event = signal.event ? eventOf(*signal.event, source_.capabilities) : bareEvent();
            if (!event.ok()) return event.error();
            events = {event.value(), false, prescaler.value()};
        }
        if (isNamePattern(source_.description, signal.name)) return addPattern(signal.name, events);
        auto found = findElements(signal.name);
        if (!found.ok()) return found.error();
        takePlace(found.value());
        for (ChosenSignal& chosen : chosenOf(std::move(found).value(), events))
            if (!matched_.contains({chosen.element.name, chosen.event, chosen.prescaler}))
                take(std::move(chosen));
        return {};
    }

    SignalChoice result() && { return std::move(choice_); }

  private:
    struct Events {
        std::uint16_t number;
        bool automatic;  ///< the object's own first
        std::uint8_t prescaler;
    };

    /// What a pattern came upon.
    struct Matches {
        std::size_t all = 0;
        std::size_t leftOut = 0;
        std::string firstReason = {};
    };

    /// Cuts it off the event, else off the name. What is a name with all its slashes has none.
    Result<std::uint8_t> takePrescaler(std::string_view text, SignalText& signal) const {
        std::string_view& holder = signal.event ? *signal.event : signal.name;
        const Scaled scaled = splitPrescaler(holder);
        if (!scaled.prescaler) return std::uint8_t{1};
        if (signal.event) {
            const auto whole = eventNamed(holder, source_.capabilities);
            if (!whole.ok() || whole.value()) return std::uint8_t{1};
            if (auto formed = checkForm(text, scaled.rest); !formed) return formed.error();
        } else if (scaled.prescaler->find_first_not_of("0123456789") != std::string_view::npos ||
                   a2l::findObject(source_.description, holder).ok()) {
            return std::uint8_t{1};
        }
        auto prescaler = prescalerOf(*scaled.prescaler, text);
        if (!prescaler.ok()) return prescaler;
        if (prescaler.value() > 1 && !source_.capabilities.prescalerSupported) {
            return Error{ErrorCode::unsupported, fmt::format("'{}': the ECU offers no prescalers", text)};
        }
        holder = scaled.rest;
        return prescaler;
    }

    /// Of what stands between '@' and the last '/'.
    Result<void> checkForm(std::string_view text, std::string_view event) const {
        if (event.empty())
            return invalid(fmt::format(
                "'{}': no event between '@' and '/'; NAME/PRESCALER takes the default one", text));
        if (event.find('/') == std::string_view::npos) return {};
        const auto named = eventNamed(event, source_.capabilities);
        if (!named.ok() || named.value()) return {};
        return invalid(fmt::format("'{}': '{}' is no event; one prescaler is possible, NAME@EVENT/PRESCALER",
                                   text, event));
    }

    Result<std::uint16_t> bareEvent() const {
        const std::string& name = source_.bareEvent.name;
        const auto named = eventNamed(name, source_.capabilities);
        if (!named.ok()) return named.error();
        if (named.value()) return *named.value();
        return invalid("no event is called '" + name +
                       "': the event of bare names is a number, a name that `info` prints, or auto");
    }

    Result<SignalElements> findElements(std::string_view name) const {
        return findSignalElements(source_.description, name, source_.read,
                                  kMostSignals - std::min(kMostSignals, choice_.chosen.size()));
    }

    static std::vector<ChosenSignal> chosenOf(SignalElements found, Events events) {
        const std::uint16_t event =
            events.automatic ? found.object->preferredEvent.value_or(events.number) : events.number;
        std::vector<ChosenSignal> signals;
        signals.reserve(found.elements.size());
        for (value::Element& element : found.elements)
            signals.push_back({found.object, std::move(element), event, events.prescaler});
        return signals;
    }

    void takePlace(const SignalElements& found) {
        choice_.placedBy.insert(choice_.placedBy.end(), found.placedBy.begin(), found.placedBy.end());
    }

    void take(ChosenSignal signal) {
        known_.emplace(signal.element.name, signal.event);
        choice_.chosen.push_back(std::move(signal));
    }

    Result<void> addPattern(std::string_view pattern, Events events) {
        if (auto few = checkParts(source_.description, pattern, "measured"); !few.ok()) return few;
        const char* kind = "measurement";
        Matches matches =
            addMatches(namesMatching(source_.description, pattern, NameKind::measurements), events);
        if (matches.all == 0) {
            kind = "parameter";
            matches = addMatches(namesMatching(source_.description, pattern, NameKind::parameters), events);
        }
        if (matches.all == 0 && !source_.folders.takesAll() &&
            !namesMatching(source_.description, pattern).empty()) {
            return Error{ErrorCode::notFound,
                         fmt::format("'{}' matches names of the A2L, none of them in the groups and "
                                     "functions that were named",
                                     pattern)};
        }
        if (matches.all == 0) {
            Error none{ErrorCode::notFound, fmt::format("'{}' matches no name of the A2L", pattern)};
            none.hint = caseHint(source_.description, pattern);
            return none;
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

    Matches addMatches(const std::vector<std::string>& names, Events events) {
        Matches matches;
        for (const std::string& name : names) {
            if (!source_.folders.takes(name)) continue;
            ++matches.all;
            if (auto added = addMatch(name, events); !added.ok()) {
                if (matches.leftOut++ == 0) matches.firstReason = added.error().text();
            }
        }
        return matches;
    }

    /// All elements of an object, or none.
    Result<void> addMatch(std::string_view name, Events events) {
        auto found = findElements(name);
        if (!found.ok()) return found.error();
        const std::vector<PlaceBytes> placedBy = found.value().placedBy;
        std::vector<ChosenSignal> signals = chosenOf(std::move(found).value(), events);
        for (const ChosenSignal& signal : signals)
            if (auto able = canMeasure_(signal); !able.ok()) return able;
        choice_.placedBy.insert(choice_.placedBy.end(), placedBy.begin(), placedBy.end());
        for (ChosenSignal& signal : signals) {
            matched_.emplace(signal.element.name, signal.event, signal.prescaler);
            if (!known_.contains({signal.element.name, signal.event})) take(std::move(signal));
        }
        return {};
    }

    const SignalSource& source_;
    const CanMeasure& canMeasure_;
    std::set<std::pair<std::string, std::uint16_t>> known_;
    std::set<std::tuple<std::string, std::uint16_t, std::uint8_t>> matched_;  ///< by patterns
    SignalChoice choice_;
};

}  // namespace

Result<SignalChoice> chooseSignals(const SignalSource& source, const std::vector<std::string>& texts,
                                   const CanMeasure& canMeasure) {
    Chooser chooser(source, canMeasure);
    for (const std::string& text : texts) {
        if (auto added = chooser.add(text); !added.ok()) return added.error();
    }
    SignalChoice choice = std::move(chooser).result();
    if (auto one = checkPrescalers(choice.chosen); !one.ok()) return one.error();
    return choice;
}

}  // namespace lm::session
