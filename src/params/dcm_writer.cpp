#include "params/dcm_writer.h"

#include <algorithm>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "params/dcm_kinds.h"
#include "params/dcm_statements.h"
#include "params/file_number.h"

namespace lm::params {
namespace {

using Values = std::span<const value::Value>;

constexpr std::size_t kPerLine = 6;
constexpr std::string_view kAxisLetters = "XY";

bool holdsText(const value::Value& value) {
    return std::holds_alternative<std::string>(value);
}

bool isMixed(Values values) {
    return std::any_of(values.begin(), values.end(), [&](const value::Value& value) {
        return holdsText(value) != holdsText(values.front());
    });
}

/// One or more lines of numbers with the first keyword, or of texts with the second.
void appendLines(std::string& text, Values values, std::size_t perLine, std::string_view numbers,
                 std::string_view texts) {
    for (std::size_t i = 0; i < values.size(); ++i) {
        const auto* word = std::get_if<std::string>(&values[i]);
        if (i % perLine == 0) text += fmt::format("   {}", word != nullptr ? texts : numbers);
        text += ' ';
        text += word != nullptr ? dcmQuoted(*word) : numberText(values[i]).value_or("0");
        if (i % perLine == perLine - 1 || i + 1 == values.size()) text += '\n';
    }
}

/// A quote after a backslash closes a text at the end of a line only.
std::size_t perLine(Values values, std::size_t wanted) {
    const bool needsLines = std::any_of(values.begin(), values.end(), [](const value::Value& value) {
        const auto* text = std::get_if<std::string>(&value);
        return text != nullptr && text->ends_with('\\');
    });
    return needsLines ? 1 : wanted;
}

/// Trailing ones are no dimensions.
std::size_t dimensionsOf(const Parameter& parameter) {
    std::size_t count = parameter.dimensions.size();
    while (parameter.shape == Shape::block && count > 1 && parameter.dimensions[count - 1] == 1)
        --count;
    return count;
}

class DcmWriter {
  public:
    explicit DcmWriter(const ParameterSet& set) : set_(set) {}

    Result<WrittenSet> write();

  private:
    std::string whyLeftOut(const Parameter& parameter) const;
    std::string whyAxesLeftOut(const Parameter& parameter) const;
    Values pointsOf(const ParameterAxis& axis) const;
    void writeObject(const Parameter& parameter);
    void writeHead(const Parameter& parameter);
    void writeValues(const Parameter& parameter);
    void writeRows(const Parameter& parameter);
    std::string fileHead() const;

    const ParameterSet& set_;
    std::string text_;
    std::set<std::string> functions_;
};

Result<WrittenSet> DcmWriter::write() {
    WrittenSet written;
    for (const Parameter& parameter : set_.parameters) {
        if (auto fits = checkShape(parameter); !fits) return fits.error();
        std::string why = whyLeftOut(parameter);
        if (!why.empty()) {
            written.leftOut.push_back({parameter.name, std::move(why)});
            continue;
        }
        if (!isExact(parameter)) written.notExact.push_back(parameter.name);
        writeObject(parameter);
    }
    written.text = fileHead() + text_;
    return written;
}

Values DcmWriter::pointsOf(const ParameterAxis& axis) const {
    const Parameter* elsewhere = axis.points.empty() ? set_.find(axis.reference) : nullptr;
    return elsewhere != nullptr ? Values(elsewhere->values) : Values(axis.points);
}

std::string DcmWriter::whyAxesLeftOut(const Parameter& parameter) const {
    for (std::size_t i = 0; i < parameter.axes.size(); ++i) {
        const ParameterAxis& axis = parameter.axes[i];
        if (axis.kind == AxisKind::rescale || axis.kind == AxisKind::curve)
            return fmt::format("has a {} axis", axisKindName(axis.kind));
        if (axis.kind != parameter.axes[0].kind)
            return fmt::format("has a {} and a {} axis", axisKindName(parameter.axes[0].kind),
                               axisKindName(axis.kind));
        if (pointsOf(axis).size() != parameter.dimensions[i])
            return fmt::format("the points of its axis {} are not known", axis.reference);
        if (isMixed(pointsOf(axis))) return "has an axis of numbers and texts";
    }
    return {};
}

std::string DcmWriter::whyLeftOut(const Parameter& parameter) const {
    if (parameter.shape == Shape::cuboid || parameter.shape == Shape::cube4 ||
        parameter.shape == Shape::cube5)
        return fmt::format("is a {}", shapeName(parameter.shape));
    if (parameter.shape == Shape::block && dimensionsOf(parameter) > 2)
        return "is a block of more than two dimensions";
    if (parameter.shape == Shape::axis && parameter.dimensions.size() != 1) return "is a rescale axis";
    std::string why = whyNotHeld(parameter, LineBreaks::notHeld);
    if (why.empty() && isMixed(parameter.values)) why = "holds numbers and texts";
    return why.empty() ? whyAxesLeftOut(parameter) : why;
}

void DcmWriter::writeHead(const Parameter& parameter) {
    const AxisKind axes = parameter.axes.empty() ? AxisKind::standard : parameter.axes[0].kind;
    const auto* kind = std::find_if(kDcmKinds.begin(), kDcmKinds.end(), [&](const DcmKind& known) {
        return known.shape == parameter.shape && known.axes == axes;
    });
    text_ += fmt::format("\n{} {}", kind->keyword, parameter.name);
    const bool isBlock = parameter.shape == Shape::block;
    for (std::size_t i = 0; i < dimensionsOf(parameter); ++i)
        text_ += fmt::format("{} {}", isBlock && i > 0 ? " @" : "", parameter.dimensions[i]);
    text_ += '\n';
    if (!parameter.description.empty())
        text_ += fmt::format("   LANGNAME {}\n", dcmQuoted(asLine(parameter.description)));
    if (!parameter.function.empty()) {
        const std::string function = asLine(parameter.function);
        if (isPlainName(function)) functions_.insert(function);
        text_ += fmt::format("   FUNKTION {}\n", isPlainName(function) ? function : dcmQuoted(function));
    }
}

void DcmWriter::writeObject(const Parameter& parameter) {
    writeHead(parameter);
    for (std::size_t i = 0; i < parameter.axes.size(); ++i)
        text_ +=
            fmt::format("   EINHEIT_{} {}\n", kAxisLetters[i], dcmQuoted(asLine(parameter.axes[i].unit)));
    if (parameter.shape != Shape::text || !parameter.unit.empty()) {
        text_ += fmt::format("   EINHEIT_{} {}\n", parameter.shape == Shape::axis ? 'X' : 'W',
                             dcmQuoted(asLine(parameter.unit)));
    }
    for (std::size_t i = 0; i < parameter.axes.size(); ++i) {
        const ParameterAxis& axis = parameter.axes[i];
        if (axis.kind == AxisKind::common && !axis.reference.empty())
            text_ += fmt::format("*SST{} {}\n", kAxisLetters[i], axis.reference);
    }
    if (!parameter.axes.empty()) {
        const Values points = pointsOf(parameter.axes[0]);
        appendLines(text_, points, perLine(points, kPerLine), "ST/X", "ST_TX/X");
    }
    writeValues(parameter);
    text_ += "END\n";
}

void DcmWriter::writeValues(const Parameter& parameter) {
    const Values values = parameter.values;
    switch (parameter.shape) {
        case Shape::axis:
            appendLines(text_, values, perLine(values, kPerLine), "ST/X", "ST_TX/X");
            break;
        case Shape::block:
            // Some readers want a whole row in one line.
            appendLines(text_, values, perLine(values, parameter.dimensions[0]), "WERT", "TEXT");
            break;
        case Shape::map:
            writeRows(parameter);
            break;
        default:
            appendLines(text_, values, perLine(values, kPerLine), "WERT", "TEXT");
    }
}

void DcmWriter::writeRows(const Parameter& parameter) {
    const Values points = pointsOf(parameter.axes[1]);
    const std::size_t length = parameter.dimensions[0];
    for (std::size_t i = 0; i < points.size(); ++i) {
        const Values row = Values(parameter.values).subspan(i * length, length);
        appendLines(text_, points.subspan(i, 1), 1, "ST/Y", "ST_TX/Y");
        appendLines(text_, row, perLine(row, kPerLine), "WERT", "TEXT");
    }
}

std::string DcmWriter::fileHead() const {
    std::string head = "* encoding=\"UTF-8\"\n";
    const auto comment = [&head](std::string_view what, const std::string& text) {
        if (!text.empty()) head += fmt::format("* {}: {}\n", what, asLine(text));
    };
    comment("ECU", set_.origin.ecu);
    comment("A2L", set_.origin.a2lFile);
    comment("EPK", set_.origin.epk);
    comment("made by", set_.origin.creator);
    head += "KONSERVIERUNG_FORMAT 2.0\n";
    if (functions_.empty()) return head;
    head += "\nFUNKTIONEN\n";
    for (const std::string& function : functions_)
        head += fmt::format("   FKT {} \"\" \"\"\n", function);
    return head + "END\n";
}

}  // namespace

Result<WrittenSet> writeDcm(const ParameterSet& set) {
    return DcmWriter(set).write();
}

}  // namespace lm::params
