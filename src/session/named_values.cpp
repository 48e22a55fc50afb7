#include "session/named_values.h"

#include "value/typed_text.h"

namespace lm::session {

/// The ECU waits meanwhile: the hints of a long list of names that are all unknown take no time of note.
Result<a2l::Object> NamedValues::find(std::string_view name) {
    constexpr std::size_t kMostExplained = 10;
    auto object = a2l::findScalar(description_, name, unknownNames_ < kMostExplained);
    if (!object && object.error().code == ErrorCode::notFound) ++unknownNames_;
    return object;
}

ReadOutcome NamedValues::read(std::span<const std::string> names) {
    return access_.read(names.size(), [&](std::size_t i) -> Result<value::Element> {
        const auto object = find(names[i]);
        if (!object) return object.error();
        return object.value().element();
    });
}

WriteOutcome NamedValues::write(std::string_view name, std::string_view text, WriteRights rights,
                                const BeforeWriting& beforeWriting) {
    auto object = find(name);
    if (!object) return {object.error()};
    if (auto allowed = checkWritable(object.value(), rights); !allowed) return {allowed.error()};
    if (rights.extendedLimits) a2l::takeExtendedLimits(object.value());
    const value::Element element = object.value().element();
    const auto typed = value::parseText(element, text);
    logAssumptions(object.value());
    if (typed) {
        auto outcome = access_.write(element, typed.value(), beforeWriting);
        if (outcome.value) warnBeyondLimits(element, typed.value());
        return outcome;
    }
    // That an ECU cannot be read counts more than a slip of the pen.
    const auto current = access_.read(element);
    return {current ? typed.error() : current.error()};
}

}  // namespace lm::session
