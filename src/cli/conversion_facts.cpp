#include "cli/conversion_facts.h"

#include <array>

#include <fmt/format.h>

#include "core/text.h"

namespace lm::cli {
namespace {

constexpr std::string_view kNoMethod = "NO_COMPU_METHOD";

using Lines = std::vector<std::string>;

/// In the words of an A2L.
std::string_view conversionTypeName(a2l::ConversionType type) {
    static constexpr std::array<std::string_view, 7> kNames = {
        "IDENTICAL", "LINEAR", "RAT_FUNC", "TAB_INTP", "TAB_NOINTP", "TAB_VERB", "FORM"};
    return kNames.at(static_cast<std::size_t>(type));
}

std::string formulaText(const a2l::CompuMethod& method) {
    std::vector<std::string> c;
    for (const double coefficient : method.coefficients)
        c.push_back(formatShortest(coefficient));
    if (method.type == a2l::ConversionType::linear && c.size() == 2)
        return fmt::format("physical = {} * raw + {}", c[0], c[1]);
    if (method.type == a2l::ConversionType::ratFunc && c.size() == 6) {
        return fmt::format("raw = ({} * p^2 + {} * p + {}) / ({} * p^2 + {} * p + {}), p the physical value",
                           c[0], c[1], c[2], c[3], c[4], c[5]);
    }
    if (method.formula.empty()) return {};
    const std::string inverse =
        method.formulaInverse ? fmt::format("; inverse {}", *method.formulaInverse) : "; no inverse";
    return fmt::format("physical = {}{}", method.formula, inverse);
}

void addNumbers(const a2l::CompuTab& table, Lines& lines) {
    for (const auto& [raw, physical] : table.pairs)
        lines.push_back(fmt::format("{} = {}", formatShortest(raw), formatShortest(physical)));
    if (table.defaultNumeric) lines.push_back("else " + formatShortest(*table.defaultNumeric));
    if (!table.defaultText.empty()) lines.push_back(fmt::format("else \"{}\"", table.defaultText));
}

void addTexts(const a2l::CompuVtab& table, Lines& lines) {
    for (const auto& [lower, upper, text] : table.ranges) {
        const std::string range =
            lower == upper ? formatShortest(lower) : formatShortest(lower) + " to " + formatShortest(upper);
        lines.push_back(fmt::format("{} = \"{}\"", range, text));
    }
    if (!table.defaultText.empty()) lines.push_back(fmt::format("else \"{}\"", table.defaultText));
}

void addTable(const a2l::Description& description, std::string_view name, Lines& lines) {
    const auto* numbers = description.findCompuTab(name);
    const auto* texts = description.findCompuVtab(name);
    const bool known = numbers != nullptr || texts != nullptr;
    lines.push_back(fmt::format("table {}{}", name, known ? "" : ", which is not in the A2L"));
    if (numbers != nullptr) addNumbers(*numbers, lines);
    if (numbers == nullptr && texts != nullptr) addTexts(*texts, lines);
}

void writeNumbers(JsonWriter& json, const a2l::CompuTab& table) {
    json.key("pairs").beginArray();
    for (const auto& [raw, physical] : table.pairs)
        json.beginArray(), json.value(raw), json.value(physical), json.endArray();
    json.endArray();
    if (table.defaultNumeric) json.member("default", *table.defaultNumeric);
}

void writeTexts(JsonWriter& json, const a2l::CompuVtab& table) {
    json.key("texts").beginArray();
    for (const auto& [lower, upper, text] : table.ranges) {
        json.beginObject();
        json.member("from", lower);
        json.member("to", upper);
        json.member("text", text);
        json.endObject();
    }
    json.endArray();
    if (!table.defaultText.empty()) json.member("default", table.defaultText);
}

void writeMethod(JsonWriter& json, const a2l::Description& description, const a2l::CompuMethod& method) {
    json.member("description", method.longIdentifier);
    json.member("type", conversionTypeName(method.type));
    json.member("unit", method.unit);
    json.member("format", method.format);
    if (!method.coefficients.empty()) json.listMember("coefficients", method.coefficients);
    if (!method.formula.empty()) json.member("formula", method.formula);
    if (method.formulaInverse) json.member("inverse", *method.formulaInverse);
    if (method.tableRef.empty()) return;
    json.member("table", method.tableRef);
    const auto* numbers = description.findCompuTab(method.tableRef);
    if (numbers != nullptr) return writeNumbers(json, *numbers);
    const auto* texts = description.findCompuVtab(method.tableRef);
    if (texts != nullptr) writeTexts(json, *texts);
}

}  // namespace

Lines conversionLines(const a2l::Description& description, std::string_view name) {
    if (name.empty()) return {};
    if (name == kNoMethod) return {"none, the raw value is the physical one"};
    const a2l::CompuMethod* const method = description.findCompuMethod(name);
    if (method == nullptr) return {fmt::format("{}, which is not in the A2L", name)};
    std::string first = fmt::format("{}: {}", name, conversionTypeName(method->type));
    if (!method->unit.empty()) first += fmt::format(", unit {}", method->unit);
    if (!method->format.empty()) first += fmt::format(", format {}", method->format);
    if (!method->longIdentifier.empty()) first += fmt::format(", \"{}\"", method->longIdentifier);
    Lines lines{first};
    if (std::string formula = formulaText(*method); !formula.empty()) lines.push_back(std::move(formula));
    if (!method->tableRef.empty()) addTable(description, method->tableRef, lines);
    if (!method->statusStringRef.empty())
        lines.push_back(fmt::format("status texts {}", method->statusStringRef));
    return lines;
}

void writeConversion(JsonWriter& json, const a2l::Description& description, std::string_view name) {
    json.key("conversion");
    if (name.empty() || name == kNoMethod) return json.null();
    json.beginObject();
    json.member("name", name);
    if (const auto* method = description.findCompuMethod(name)) writeMethod(json, description, *method);
    json.endObject();
}

}  // namespace lm::cli
