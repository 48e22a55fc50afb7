#include "session/held_object.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <cstring>

namespace lm::session {
namespace {

using a2l::ObjectContent;

bool contains(const a2l::MemorySpan& span, const value::Element& element) {
    return span.address.extension == element.address.extension &&
           span.address.address <= element.address.address &&
           std::uint64_t{element.address.address} + element.size() <= span.end();
}

bool equal(const value::Value& a, const value::Value& b) {
    const auto* const exactA = std::get_if<value::Exact>(&a);
    const auto* const exactB = std::get_if<value::Exact>(&b);
    if (exactA != nullptr && exactB != nullptr) return std::is_eq(*exactA <=> *exactB);
    const double numberA = value::toDouble(a);
    const double numberB = value::toDouble(b);
    return numberA == numberB || (std::isnan(numberA) && std::isnan(numberB));
}

/// Of one element: a piece holds many, some of them written when the write failed.
HeldSpan::State stateOf(const value::Element& element, const HeldSpan& held, const ObjectContent& before,
                        const a2l::MemoryImage& wanted) {
    if (held.state == HeldSpan::State::unknown) return held.state;
    const std::uint8_t* const bytes =
        held.bytes.data() + (element.address.address - held.span.address.address);
    const auto is = [&](const a2l::MemoryImage& image) {
        return equal(value::rawValue(element, image.at(element.address, element.size())),
                     value::rawValue(element, bytes));
    };
    if (is(wanted)) return HeldSpan::State::after;
    return is(before.image) ? HeldSpan::State::before : HeldSpan::State::other;
}

}  // namespace

bool sameValues(const ObjectContent& a, const ObjectContent& b) {
    if (a.placed.spans(0) != b.placed.spans(0)) return false;
    if (a2l::differences(a, b.image).empty()) return true;
    for (std::size_t i = 0; i < a.placed.elementCount(); ++i)
        if (!equal(a.raw(i), b.raw(i))) return false;
    for (std::size_t i = 0; i < a.placed.axes().size(); ++i) {
        const auto pointsA = a.points(i);
        const auto pointsB = b.points(i);
        if (!std::equal(pointsA.begin(), pointsA.end(), pointsB.begin(), pointsB.end(), equal)) return false;
    }
    return true;
}

HeldObject heldObject(const ObjectContent& before, const a2l::MemoryImage& wanted,
                      const std::vector<HeldSpan>& spans, bool isDependent) {
    HeldObject held{before.placed.object().name, isDependent, {}, before};
    if (spans.empty()) held.content.reset();  // it could not even be read
    for (const HeldSpan& span : spans) {
        if (span.state == HeldSpan::State::unknown) {
            held.content.reset();
        } else if (held.content) {
            held.content->image.add(span.span.address, span.bytes);
        }
    }
    const auto take = [&](const value::Element& element) {
        const std::size_t size = element.size();
        const auto span = std::find_if(spans.begin(), spans.end(),
                                       [&](const HeldSpan& one) { return contains(one.span, element); });
        const bool differs =
            std::memcmp(before.image.at(element.address, size), wanted.at(element.address, size), size) != 0;
        if (!differs || (span == spans.end() && !spans.empty())) return;
        held.numbers.push_back(
            {element, spans.empty() ? HeldSpan::State::unknown : stateOf(element, *span, before, wanted)});
    };
    for (std::size_t i = 0; i < before.placed.elementCount(); ++i)
        take(before.placed.element(i));
    for (const a2l::PlacedAxis& axis : before.placed.axes()) {
        const bool isOwn = axis.isOwn() && before.placed.object().kind != a2l::ObjectKind::axisPoints;
        for (std::uint32_t i = 0; isOwn && i < axis.count(); ++i)
            take(axis.element(i));
    }
    return held;
}

}  // namespace lm::session
