#include "params/physical_form.h"

#include <algorithm>

#include "core/printable_text.h"
#include "core/text.h"
#include "params/file_number.h"

namespace lm::params {
namespace {

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20;
}

bool isHeld(std::string_view text, LineBreaks lineBreaks) {
    if (!isValidUtf8(text)) return false;
    return std::none_of(text.begin(), text.end(), [&](char c) {
        const bool isBreak = c == '\n' || c == '\r';
        return isControl(c) && c != '\t' && !(isBreak && lineBreaks == LineBreaks::held);
    });
}

std::string whyValuesNotHeld(const std::vector<value::Value>& values, LineBreaks lineBreaks) {
    for (const value::Value& value : values) {
        if (const auto* text = std::get_if<std::string>(&value)) {
            if (!isHeld(*text, lineBreaks)) return "holds a text with control characters";
        } else if (!numberText(value)) {
            return "holds a number that is not finite";
        }
    }
    return {};
}

}  // namespace

std::string whyNotHeld(const Parameter& parameter, LineBreaks lineBreaks) {
    if (!isPlainName(parameter.name)) return "its name cannot stand in the file";
    if (parameter.values.empty()) return "holds no values";
    const bool isText = std::holds_alternative<std::string>(parameter.values.front());
    if (parameter.shape == Shape::text && !isText) return "is a text, but holds a number";
    std::string why = whyValuesNotHeld(parameter.values, lineBreaks);
    for (const ParameterAxis& axis : parameter.axes) {
        if (why.empty()) why = whyValuesNotHeld(axis.points, lineBreaks);
        if (why.empty() && !axis.reference.empty() && !isPlainName(axis.reference))
            why = "the name of its axis cannot stand in the file";
    }
    return why;
}

bool isExact(const Parameter& parameter) {
    // Points that lie elsewhere are exact, or not, there.
    return parameter.raws.empty() &&
           std::all_of(parameter.axes.begin(), parameter.axes.end(), [](const ParameterAxis& axis) {
               return axis.raws.empty() || !axis.reference.empty() || axis.kind == AxisKind::fixed;
           });
}

bool sameValue(const value::Value& a, const value::Value& b) {
    const auto* textOfA = std::get_if<std::string>(&a);
    const auto* textOfB = std::get_if<std::string>(&b);
    if (textOfA != nullptr || textOfB != nullptr)
        return textOfA != nullptr && textOfB != nullptr && *textOfA == *textOfB;
    return numberText(a) == numberText(b);
}

bool isPlainName(std::string_view name) {
    return !name.empty() && isValidUtf8(name) && std::none_of(name.begin(), name.end(), [](char c) {
        return isControl(c) || c == ' ' || c == '"' || c == '\x7F';
    });
}

std::string asLine(std::string_view text) {
    std::string line = isValidUtf8(text) ? std::string(text) : printableText(text);
    std::replace_if(line.begin(), line.end(), isControl, ' ');
    return line;
}

}  // namespace lm::params
