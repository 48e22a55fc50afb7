#include "cli/diff_report.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <fmt/format.h>

#include "core/printable_text.h"
#include "core/text.h"

namespace lm::cli {
namespace {

using params::NumberDifference;
using params::ParameterDifference;
using Kind = ParameterDifference::Kind;

constexpr std::size_t kMostNumbers = 8;
constexpr std::array<Kind, 4> kKinds = {Kind::different, Kind::onlyInA, Kind::onlyInB, Kind::notComparable};

std::string textOf(const value::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return *text;
    if (const auto* exact = std::get_if<value::Exact>(&value)) return exact->shortest();
    const double number = std::get<double>(value);
    return std::isnan(number) ? "no number" : formatShortest(number);
}

/// The rounding of the subtraction is no news.
std::string byText(double by) {
    return (by > 0 ? "+" : "") + formatGeneral(by);
}

std::string changeText(const NumberDifference& number) {
    const char* const raw = number.areRaw ? "raw " : "";
    std::string text = fmt::format("{}{} -> {}{}", raw, textOf(*number.a), raw, textOf(*number.b));
    if (number.by) text += fmt::format("  ({})", byText(*number.by));
    return text;
}

std::string withUnit(const std::string& text, const ParameterDifference& one) {
    const std::string& unit = one.any().unit.empty() && one.b != nullptr ? one.b->unit : one.any().unit;
    return unit.empty() ? text : text + " " + unit;
}

std::string lineOf(const ParameterDifference& one) {
    if (one.kind == Kind::onlyInA || one.kind == Kind::onlyInB) return std::string(differenceName(one.kind));
    if (one.kind == Kind::notComparable) return "not comparable: " + one.why;
    if (one.numbers.empty()) return one.why;
    if (one.compared == 1) return withUnit(changeText(one.numbers.front()), one);
    std::string text = fmt::format("{} of {} differ", one.numbers.size(), one.compared);
    if (!one.largest) return text;
    const NumberDifference& largest = one.numbers[*one.largest];
    text += fmt::format(", most {} by {}", largest.place, byText(*largest.by));
    return largest.place.starts_with('.') ? text : withUnit(text, one);
}

void printNumbers(const ParameterDifference& one, Output& output) {
    if (one.compared == 1) return;
    std::size_t width = 0;
    const std::size_t shown = std::min(one.numbers.size(), kMostNumbers);
    for (std::size_t i = 0; i < shown; ++i)
        width = std::max(width, one.numbers[i].place.size());
    for (std::size_t i = 0; i < shown; ++i) {
        output.append(printableText(
            fmt::format("  {:<{}}  {}", one.numbers[i].place, width, changeText(one.numbers[i]))));
        output.append('\n');
    }
    if (one.numbers.size() > shown) output.append(fmt::format("  ... {} more\n", one.numbers.size() - shown));
}

void printSide(char letter, const DiffSide& side, Output& output) {
    const params::Origin& origin = side.set->origin;
    std::string text = fmt::format("{}  {}:", letter, side.name);
    for (const std::string* part : {&origin.ecu, &origin.a2lFile, &origin.time})
        if (!part->empty()) text += " " + *part;
    output.append(printableText(text + fmt::format(" ({} parameter(s))", side.parameters())));
    output.append('\n');
}

/// What does not make a parameter different, but may explain all that is.
void printOrigins(const params::ParameterSet& inA, const params::ParameterSet& inB, Output& output) {
    const params::Origin& a = inA.origin;
    const params::Origin& b = inB.origin;
    if (haveOtherSoftware(inA, inB))
        output.append(printableText(fmt::format("EPK differs: '{}' in A, '{}' in B: of different software",
                                                a.epk, b.epk)) +
                      "\n");
    if (!a.pages.empty() && !b.pages.empty() && a.pages != b.pages)
        output.append(printableText(fmt::format("calibration pages: {} in A; {} in B", a.pages, b.pages)) +
                      "\n");
    if (!a.a2lSha256.empty() && !b.a2lSha256.empty() && a.a2lSha256 != b.a2lSha256)
        output.append("the A2L files differ\n");
}

void writeSide(JsonWriter& json, std::string_view key, const DiffSide& side) {
    const params::Origin& origin = side.set->origin;
    json.key(key).beginObject();
    json.member("name", side.name);
    json.member("ecu", origin.ecu);
    json.member("a2l", origin.a2lFile);
    json.member("a2lSha256", origin.a2lSha256);
    json.member("epk", origin.epk);
    json.member("time", origin.time);
    if (!origin.pages.empty()) json.member("pages", origin.pages);
    json.member("parameters", side.parameters());
    json.endObject();
}

void writeNumber(JsonWriter& json, const NumberDifference& number) {
    json.beginObject();
    json.member("place", number.place);
    json.key("a").value(*number.a);
    json.key("b").value(*number.b);
    if (number.areRaw) json.member("raw", true);
    if (number.by) json.member("by", *number.by);
    json.endObject();
}

}  // namespace

bool haveOtherSoftware(const params::ParameterSet& a, const params::ParameterSet& b) {
    return !a.origin.epk.empty() && !b.origin.epk.empty() && a.origin.epk != b.origin.epk;
}

void writeDifference(JsonWriter& json, const ParameterDifference& one) {
    json.beginObject();
    json.member("name", one.any().name);
    json.member("difference", differenceName(one.kind));
    if (!one.why.empty()) json.member("why", one.why);
    json.member("unit", one.any().unit);
    if (one.kind == Kind::different) {
        json.member("compared", one.compared);
        if (one.largest) writeNumber(json.key("largest"), one.numbers[*one.largest]);
        json.key("numbers").beginArray();
        for (const NumberDifference& number : one.numbers)
            writeNumber(json, number);
        json.endArray();
    }
    json.endObject();
}

void printDifference(const ParameterDifference& one, Output& output) {
    output.appendValueLine(one.any().name, lineOf(one));
    printNumbers(one, output);
    if (!one.numbers.empty() && !one.why.empty()) output.append(printableText("  " + one.why) + "\n");
}

void DiffReport::print(Output& output) const {
    printSide('A', a_, output);
    printSide('B', b_, output);
    printOrigins(*a_.set, *b_.set, output);
    for (const ParameterDifference& one : difference_.parameters)
        printDifference(one, output);
    std::string counts;
    for (const Kind kind : kKinds)
        counts += fmt::format("{} {}, ", difference_.count(kind), differenceName(kind));
    const std::string passedOver = notInFile_ == 0 ? "" : fmt::format(", {} not in the file", notInFile_);
    output.append(counts + fmt::format("{} equal{}\n", difference_.equal, passedOver));
}

void DiffReport::write(JsonWriter& json) const {
    writeSide(json, "a", a_);
    writeSide(json, "b", b_);
    json.key("differences").beginArray();
    for (const ParameterDifference& one : difference_.parameters)
        writeDifference(json, one);
    json.endArray();
    json.member("equal", difference_.equal);
    json.member("different", difference_.count(Kind::different));
    json.member("onlyInA", difference_.count(Kind::onlyInA));
    json.member("onlyInB", difference_.count(Kind::onlyInB));
    json.member("notComparable", difference_.count(Kind::notComparable));
    json.member("notInFile", notInFile_);
    json.member("epkDiffers", haveOtherSoftware(*a_.set, *b_.set));
}

}  // namespace lm::cli
