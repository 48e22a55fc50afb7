#include <charconv>
#include <cmath>
#include <iterator>

#include <spdlog/fmt/fmt.h>

#include "params/json_file.h"
#include "params/json_members.h"

namespace lm::params {
namespace {

using value::Exact;
using value::Value;

void appendText(std::string& out, std::string_view text) {
    out += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) {
            out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
        } else {
            out += c;
        }
    }
    out += '"';
}

void appendNumber(std::string& out, double number) {
    if (!std::isfinite(number)) {
        out += "null";
    } else if (number == 0 && std::signbit(number)) {
        out += "-0.0";
    } else {
        char digits[32];
        out.append(digits, std::to_chars(std::begin(digits), std::end(digits), number).ptr);
    }
}

void append(std::string& out, const Value& value) {
    if (const auto* number = std::get_if<double>(&value)) {
        appendNumber(out, *number);
    } else if (const auto* exact = std::get_if<Exact>(&value)) {
        out += exact->shortest();
    } else {
        appendText(out, std::get<std::string>(value));
    }
}

void appendName(std::string& out, std::string_view name) {
    if (out.back() != '{') out += ", ";
    out += '"';
    out += name;
    out += "\": ";
}

void member(std::string& out, std::string_view name, std::string_view text) {
    if (text.empty()) return;
    appendName(out, name);
    appendText(out, text);
}

template <typename List, typename One>
void listMember(std::string& out, std::string_view name, const List& list, const One& one) {
    if (list.empty()) return;
    appendName(out, name);
    out += '[';
    for (const auto& element : list) {
        if (out.back() != '[') out += ", ";
        one(element);
    }
    out += ']';
}

void values(std::string& out, std::string_view name, const std::vector<Value>& list, bool single) {
    if (single && list.size() == 1) {
        appendName(out, name);
        return append(out, list.front());
    }
    listMember(out, name, list, [&](const Value& value) { append(out, value); });
}

void append(std::string& out, const ParameterAxis& axis) {
    out += '{';
    member(out, "kind", axisKindName(axis.kind));
    member(out, "reference", axis.reference);
    member(out, "unit", axis.unit);
    values(out, "points", axis.points, false);
    values(out, "raws", axis.raws, false);
    out += '}';
}

void append(std::string& out, const Parameter& parameter) {
    const bool single = parameter.dimensions.empty();
    out += '{';
    member(out, "name", parameter.name);
    member(out, "shape", shapeName(parameter.shape));
    listMember(out, "dimensions", parameter.dimensions,
               [&](std::size_t count) { out += fmt::format_int(count).c_str(); });
    member(out, "unit", parameter.unit);
    values(out, single ? "value" : "values", parameter.values, single);
    values(out, single ? "raw" : "raws", parameter.raws, single);
    listMember(out, "axes", parameter.axes, [&](const ParameterAxis& axis) { append(out, axis); });
    member(out, "function", parameter.function);
    member(out, "description", parameter.description);
    member(out, "digest", parameter.digest);
    out += '}';
}

}  // namespace

std::string writeJson(const ParameterSet& set) {
    std::string out =
        fmt::format("{{\n\"format\": \"{}\",\n\"schema\": {},\n\"origin\": {{", kJsonFormat, kJsonSchema);
    std::string_view separator = "\n  ";
    for (const auto& [name, text] : kJsonOrigin) {
        if ((set.origin.*text).empty()) continue;
        out += fmt::format("{}\"{}\": ", separator, name);
        appendText(out, set.origin.*text);
        separator = ",\n  ";
    }
    out += "\n},\n\"parameters\": [";
    separator = "\n";
    for (const Parameter& parameter : set.parameters) {
        out += separator;
        append(out, parameter);
        separator = ",\n";
    }
    return out + "\n]\n}\n";
}

}  // namespace lm::params
