#include "cli/object_table.h"

#include <algorithm>
#include <array>
#include <utility>

#include "a2l/object_name.h"
#include "cli/terminal_plot.h"
#include "core/printable_text.h"

namespace lm::cli {
namespace {

/// Of one dimension, the values of so many numbers stand side by side.
constexpr std::size_t kNumbersPerLine = 10;

using Texts = std::vector<std::string>;

std::size_t widest(std::span<const std::string> texts, std::size_t width) {
    for (const std::string& text : texts)
        width = std::max(width, characterCount(text));
    return width;
}

void appendRight(std::string& line, const std::string& text, std::size_t width) {
    line.append(width - std::min(characterCount(text), width), ' ');
    line += text;
}

/// A label, then cells, each with two blanks before it.
void appendRow(std::string& text, const std::string& label, std::size_t labelWidth,
               std::span<const std::string> cells, std::size_t cellWidth) {
    text += "  ";
    appendRight(text, label, labelWidth);
    for (const std::string& cell : cells) {
        text += "  ";
        appendRight(text, cell, cellWidth);
    }
    text += '\n';
}

Texts valueTexts(const a2l::ObjectContent& content, std::size_t first, std::size_t count,
                 value::NumberStyle style) {
    Texts texts;
    texts.reserve(count);
    const std::vector<value::Value> values = content.physicals(first, count);
    for (std::size_t i = 0; i < count; ++i)
        texts.push_back(shownText(content.placed.element(first + i), values[i], style));
    return texts;
}

/// One map of an object: what stands above it, and the number of its first element.
struct Page {
    std::string title;  ///< "z = 10.0"; empty when there is one
    std::size_t first = 0;
};

std::string pageTable(const a2l::ObjectContent& content, const Page& page, value::NumberStyle style,
                      const Decorate& decorate) {
    const std::string corner = "y \\ x";
    const Texts across = pointTexts(content, 0, style);
    const Texts down = pointTexts(content, 1, style);
    const Texts values = valueTexts(content, page.first, across.size() * down.size(), style);
    const std::size_t labelWidth = widest(down, corner.size());
    const std::size_t cellWidth = widest(values, widest(across, 0));
    std::string text = page.title.empty() ? "" : "  " + page.title + "\n";
    appendRow(text, corner, labelWidth, across, cellWidth);
    for (std::size_t row = 0; row < down.size(); ++row) {
        const std::size_t first = row * across.size();
        Texts cells;
        for (std::size_t i = first; i < first + across.size(); ++i) {
            std::string& cell = cells.emplace_back();
            appendRight(cell, values[i], cellWidth);
            if (decorate) cell = decorate(page.first + i, cell);
        }
        appendRow(text, down[row], labelWidth, cells, 0);
    }
    return text;
}

std::string axisName(std::size_t axis) {
    return std::string(a2l::axisSuffix(axis).substr(1));
}

std::vector<Page> pagesOf(const a2l::ObjectContent& content, value::NumberStyle style) {
    const auto& dimensions = content.placed.dimensions();
    const bool isBlock = !hasAxes(content.placed);
    std::vector<Texts> points;
    for (std::size_t i = 2; i < dimensions.size(); ++i)
        points.push_back(pointTexts(content, i, style));
    std::vector<Page> pages;
    const std::size_t perPage = std::size_t{dimensions[0]} * dimensions[1];
    for (std::size_t first = 0; first < content.placed.elementCount(); first += perPage) {
        std::string title = isBlock && !points.empty() ? "[.][.]" : "";
        std::size_t rest = pages.size();
        for (std::size_t i = 0; i < points.size(); ++i) {
            if (!isBlock) title += (i == 0 ? "" : ", ") + axisName(i + 2) + " = ";
            title += points[i][rest % points[i].size()];
            rest /= points[i].size();
        }
        pages.push_back({std::move(title), first});
    }
    return pages;
}

/// Where the points come from, when they are not the object's own.
std::string originText(const a2l::Axis& axis) {
    switch (axis.kind) {
        case a2l::AxisKind::standard:
            return "";
        case a2l::AxisKind::fixed:
            return ", fixed";
        case a2l::AxisKind::common:
            return ", shared " + axis.reference;
        case a2l::AxisKind::rescale:
            return ", rescaled by " + axis.reference;
        case a2l::AxisKind::curve:
            return ", index of curve " + axis.reference;
    }
    return "";
}

}  // namespace

bool hasAxes(const a2l::PlacedObject& placed) {
    return placed.object().kind == a2l::ObjectKind::characteristic && !placed.axes().empty();
}

std::string_view objectTypeName(const a2l::Object& object) {
    static constexpr std::array<std::string_view, 8> kNames = {"VALUE",  "CURVE",  "MAP",     "CUBOID",
                                                               "CUBE_4", "CUBE_5", "VAL_BLK", "ASCII"};
    if (object.kind == a2l::ObjectKind::axisPoints) return "AXIS_PTS";
    if (object.kind == a2l::ObjectKind::measurement) return value::dataTypeName(object.first.coding.dataType);
    return kNames.at(static_cast<std::size_t>(object.type));
}

std::string objectTitle(const a2l::ObjectContent& content) {
    const a2l::Object& object = content.placed.object();
    std::string text(objectTypeName(object));
    std::string_view between = " ";
    for (const std::uint32_t count : content.placed.dimensions()) {
        text += std::string(between) + std::to_string(count);
        between = " x ";
    }
    const std::string& unit = object.first.conversion->unit();
    return text + (unit.empty() ? "" : ", " + printableText(unit));
}

std::string shownText(const value::Element& element, const value::Value& physical, value::NumberStyle style) {
    const std::string text = printableText(value::valueText(element, physical, style));
    return text.empty() ? "?" : text;
}

std::vector<std::string> pointTexts(const a2l::ObjectContent& content, std::size_t dimension,
                                    value::NumberStyle style) {
    Texts texts;
    if (!hasAxes(content.placed)) {
        for (std::uint32_t i = 0; i < content.placed.dimensions()[dimension]; ++i)
            texts.push_back("[" + std::to_string(i) + "]");
        return texts;
    }
    const a2l::PlacedAxis& axis = content.placed.axes()[dimension];
    for (const value::Value& raw : content.points(dimension))
        texts.push_back(shownText(axis.about().point, axis.physical(raw), style));
    return texts;
}

std::string lineTable(std::string_view label, std::span<const std::string> heads,
                      std::span<const std::string> values) {
    const std::size_t width = widest(values, widest(heads, 0));
    std::string text;
    for (std::size_t i = 0; i < values.size(); i += kNumbersPerLine) {
        const std::size_t some = std::min(kNumbersPerLine, values.size() - i);
        appendRow(text, std::string(label), 1, heads.subspan(i, some), width);
        appendRow(text, "", 1, values.subspan(i, some), width);
    }
    return text;
}

std::string axisLines(const a2l::ObjectContent& content) {
    std::string text;
    for (std::size_t i = 0; hasAxes(content.placed) && i < content.placed.axes().size(); ++i) {
        const a2l::Axis& axis = content.placed.axes()[i].about();
        const std::string& unit = axis.point.conversion->unit();
        std::string line = axis.inputQuantity.empty() ? "no input quantity" : axis.inputQuantity;
        if (!unit.empty()) line += " (" + unit + ")";
        text += "  " + axisName(i) + ": " + printableText(line + originText(axis)) + "\n";
    }
    return text;
}

std::string objectTable(const a2l::ObjectContent& content, value::NumberStyle style,
                        const Decorate& decorate) {
    std::string text = axisLines(content);
    if (content.placed.dimensions().size() == 1) {
        return text + lineTable(hasAxes(content.placed) ? "x" : "", pointTexts(content, 0, style),
                                valueTexts(content, 0, content.placed.elementCount(), style));
    }
    for (const Page& page : pagesOf(content, style))
        text += pageTable(content, page, style, decorate);
    return text;
}

}  // namespace lm::cli
