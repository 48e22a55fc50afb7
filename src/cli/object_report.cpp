#include "cli/object_report.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <span>

#include <fmt/format.h>

#include "cli/diff_report.h"
#include "cli/message_output.h"
#include "cli/object_json.h"
#include "cli/object_plot.h"
#include "cli/object_table.h"
#include "cli/value_json.h"
#include "core/printable_text.h"
#include "params/parameter_diff.h"
#include "session/parameter_reading.h"
#include "value/typed_text.h"

namespace lm::cli {
namespace {

using session::HeldObject;
using session::HeldSpan;
using session::NumberReading;

void printObject(Output& output, std::string_view name, const a2l::ObjectContent& content,
                 const ObjectStyle& style) {
    if (content.placed.object().isText()) return output.appendValueLine(name, content.text());
    if (content.placed.dimensions().empty()) {
        return output.appendValueLine(
            name, shownText(content.placed.element(0), content.physical(0), style.numbers));
    }
    output.appendValueLine(name, objectTitle(content));
    output.append(style.plot ? objectPlot(content, *style.plot, style.numbers)
                             : objectTable(content, style.numbers));
}

void writeContent(JsonWriter& json, const a2l::ObjectContent& content, value::NumberStyle style) {
    if (!content.placed.dimensions().empty()) return writeObject(json, content, style);
    writeValue(json, content.placed.element(0), content.bytes(0),
               shownText(content.placed.element(0), content.physical(0), style));
}

void writeNumber(JsonWriter& json, const NumberReading& number, value::NumberStyle style) {
    const value::Element& element = number.element;
    const auto* const raw = std::get_if<double>(&number.raw);
    const bool isComputed = raw != nullptr && std::isnan(*raw);
    json.beginObject();
    writeRaw(json.key("raw"), element, number.raw);
    writePhysical(json.key("physical"), element, isComputed ? number.physical : number.raw);
    json.member("unit", element.conversion->unit());
    json.member("text", shownText(element, number.physical, style));
    json.endObject();
}

/// The first deviation, and how many more there are; empty when there is none.
std::string deviationOf(const std::vector<session::TypedChange>& typed, value::NumberStyle style) {
    std::string first;
    std::size_t more = 0;
    for (const session::TypedChange& change : typed) {
        std::array<std::uint8_t, sizeof(std::uint64_t)> bytes{};
        const std::span<std::uint8_t> buffer(bytes.data(), change.element.size());
        // A step to a point may be small where the point is not.
        if (!value::encodePhysical(change.element, change.change.physical, buffer)) continue;
        const std::string text =
            value::deviationText(change.element, change.text, change.change.physical, buffer, style);
        if (text.empty()) continue;
        if (!first.empty()) ++more;
        if (first.empty()) first = change.element.name + ": " + text;
    }
    return more == 0 ? first : first + fmt::format(" (and {} more like it)", more);
}

std::string namesOf(const HeldObject& held, HeldSpan::State state, value::NumberStyle style) {
    constexpr std::size_t kMost = 4;
    std::string text;
    std::size_t count = 0;
    for (const HeldObject::Number& number : held.numbers) {
        if (number.state != state || ++count > kMost) continue;
        const value::Element& element = number.element;
        text += (text.empty() ? "" : ", ") + element.name;
        // Neither what was typed nor what was there before: no one could guess it.
        if (state != HeldSpan::State::other || !held.content) continue;
        const std::uint8_t* const bytes = held.content->image.at(element.address, element.size());
        text += " (" + value::valueText(element, bytes, style) + ")";
    }
    return count > kMost ? text + fmt::format(" and {} more", count - kMost) : text;
}

/// A write that failed on its way may have changed the ECU: the user must not have to guess.
std::string heldText(const HeldObject& held, value::NumberStyle style) {
    if (held.content && held.content->placed.object().isText())
        return "the ECU now holds \"" + held.content->text() + "\"";
    if (held.content && held.numbers.size() == 1) {
        const value::Element& element = held.numbers.front().element;
        const std::uint8_t* const bytes = held.content->image.at(element.address, element.size());
        return "the ECU now holds " + value::valueText(element, bytes, style);
    }
    if (held.numbers.size() == 1 || (!held.content && held.numbers.empty()))
        return "what the ECU now holds is not known";
    struct Part {
        HeldSpan::State state;
        const char* text;
    };
    constexpr std::array<Part, 3> kParts = {Part{HeldSpan::State::after, "the new values of "},
                                            {HeldSpan::State::before, "the former values of "},
                                            {HeldSpan::State::other, "other values of "}};
    std::string text;
    for (const Part& part : kParts) {
        const std::string names = namesOf(held, part.state, style);
        if (!names.empty()) text += (text.empty() ? "the ECU now holds " : "; ") + (part.text + names);
    }
    const std::string unknown = namesOf(held, HeldSpan::State::unknown, style);
    if (unknown.empty()) return text;
    return text + (text.empty() ? "" : "; ") + "what the ECU now holds is not known of " + unknown;
}

}  // namespace

void ObjectReport::print(Output& output) const {
    if (!reading_) return output.appendValueLine(name_, "ERROR " + reading_.error().text());
    const session::ObjectReading& reading = reading_.value();
    // What was typed may have been a part of it.
    if (reading.whole)
        return printObject(output, style_.before + reading.whole->placed.object().name, *reading.whole,
                           style_);
    const bool isOne = reading.numbers.size() == 1;
    if (reading.isRow && !isOne) return printRow(output);
    for (const NumberReading& number : reading.numbers) {
        output.appendValueLine(isOne ? name_ : style_.before + number.element.name,
                               shownText(number.element, number.physical, style_.numbers));
    }
}

/// Under the indices that are open in the name.
void ObjectReport::printRow(Output& output) const {
    const auto& numbers = reading_.value().numbers;
    std::vector<std::string> heads;
    std::vector<std::string> values;
    for (const NumberReading& number : numbers) {
        heads.push_back("[" + std::to_string(heads.size()) + "]");
        values.push_back(shownText(number.element, number.physical, style_.numbers));
    }
    const std::string& unit = numbers.front().element.conversion->unit();
    output.appendValueLine(
        name_, fmt::format("{} values{}", numbers.size(), unit.empty() ? "" : ", " + printableText(unit)));
    output.append(lineTable("", heads, values));
}

void ObjectReport::write(JsonWriter& json) const {
    // A part of several numbers is as many entries.
    if (reading_ && !reading_.value().whole && reading_.value().numbers.size() > 1) {
        for (const NumberReading& number : reading_.value().numbers) {
            json.beginObject();
            json.member("name", style_.before + number.element.name);
            writeNumber(json.key("value"), number, style_.numbers);
            json.endObject();
        }
        return;
    }
    json.beginObject();
    json.member("name", name_);
    writeMembers(json);
    json.endObject();
}

void ObjectReport::writeMembers(JsonWriter& json) const {
    if (!reading_) {
        json.key("error").beginObject();
        writeError(json, reading_.error());
        return json.endObject();
    }
    json.key("value");
    if (reading_.value().whole) return writeContent(json, *reading_.value().whole, style_.numbers);
    writeNumber(json, reading_.value().numbers.front(), style_.numbers);
}

ObjectWriteReport::ObjectWriteReport(const session::WriteWish& wish, const session::ObjectWriting& writing,
                                     const ObjectStyle& style)
    : ObjectReport(wish.name, writing.value, style), wish_(wish), writing_(writing) {
    if (writing.value) deviation_ = deviationOf(writing.typed, style.numbers);
}

void ObjectWriteReport::tell(const std::string& what) const {
    printMessage(printableText(what) + "\n");
}

/// From the former to the new values.
bool ObjectWriteReport::printChange(Output& output) const {
    if (wish_.relation == session::Relation::value || !reading_ || writing_.written.empty()) return false;
    params::ParameterSet before;
    params::ParameterSet after;
    before.parameters.push_back(session::parameterOf(writing_.written.front().before, {}));
    after.parameters.push_back(session::parameterOf(writing_.written.front().after, {}));
    const auto difference = params::compare(before, after);
    for (const params::ParameterDifference& one : difference.parameters)
        printDifference(one, output);
    return !difference.parameters.empty();
}

void ObjectWriteReport::print(Output& output) const {
    if (!printChange(output)) ObjectReport::print(output);
    for (const session::WrittenDependent& dependent : writing_.dependents)
        printObject(output, style_.before + dependent.name, dependent.content, style_);
    output.flush();
    if (!deviation_.empty()) tell(deviation_);
    if (writing_.restored) tell(name_ + ": all that had been written was taken back");
    for (const HeldObject& held : writing_.held)
        tell(style_.before + (held.numbers.size() == 1 ? held.numbers.front().element.name : held.name) +
             ": " + heldText(held, style_.numbers));
}

void ObjectWriteReport::writeHeld(JsonWriter& json, const HeldObject& held) const {
    json.key("held");
    if (!held.content) {
        json.null();
        json.key("heldError").beginObject();
        writeError(json, writing_.value.error());
        return json.endObject();
    }
    const bool isOne = held.numbers.size() == 1 && !reading_.ok() && !held.content->placed.object().isText();
    if (!isOne) return writeContent(json, *held.content, style_.numbers);
    const value::Element& element = held.numbers.front().element;
    const std::uint8_t* const bytes = held.content->image.at(element.address, element.size());
    writeValue(json, element, bytes, value::valueText(element, bytes, style_.numbers));
}

void ObjectWriteReport::writeMembers(JsonWriter& json) const {
    json.member("typed", wish_.text);
    ObjectReport::writeMembers(json);
    if (!deviation_.empty()) json.member("deviation", deviation_);
    if (writing_.restored) json.member("restored", true);
    const auto isDependent = [](const HeldObject& held) { return held.isDependent; };
    for (const HeldObject& held : writing_.held) {
        if (!isDependent(held)) writeHeld(json, held);
    }
    if (writing_.dependents.empty() && std::none_of(writing_.held.begin(), writing_.held.end(), isDependent))
        return;
    json.key("dependents").beginArray();
    for (const session::WrittenDependent& dependent : writing_.dependents) {
        json.beginObject();
        json.member("name", dependent.name);
        writeContent(json.key("value"), dependent.content, style_.numbers);
        json.endObject();
    }
    for (const HeldObject& held : writing_.held) {
        if (!isDependent(held)) continue;
        json.beginObject();
        json.member("name", held.name);
        writeHeld(json, held);
        json.endObject();
    }
    json.endArray();
}

}  // namespace lm::cli
