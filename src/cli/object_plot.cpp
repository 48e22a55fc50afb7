#include "cli/object_plot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include <fmt/format.h>

#include "cli/object_table.h"
#include "core/printable_text.h"
#include "core/text.h"

namespace lm::cli {
namespace {

// Of the 256 colours of a terminal, from cold to warm.
constexpr std::array<int, 13> kColours = {27, 33, 39, 45, 51, 49, 46, 118, 190, 226, 214, 202, 196};
constexpr int kBlack = 16;

double physicalNumber(const a2l::ObjectContent& content, std::size_t number) {
    return value::toDouble(content.placed.element(number).conversion->toPhysical(content.raw(number)));
}

std::vector<double> physicalNumbers(const a2l::ObjectContent& content) {
    std::vector<double> numbers;
    for (std::size_t i = 0; i < content.placed.elementCount(); ++i)
        numbers.push_back(physicalNumber(content, i));
    return numbers;
}

storage::ValueRange finiteRange(const std::vector<double>& numbers) {
    storage::ValueRange range;
    for (const double number : numbers) {
        if (!std::isfinite(number)) continue;
        range.minimum = range.isEmpty() ? number : std::min(range.minimum, number);
        range.maximum = range.isEmpty() ? number : std::max(range.maximum, number);
    }
    return range;
}

int colourOf(double number, const storage::ValueRange& range) {
    const double span = range.maximum - range.minimum;
    const double share = span > 0 ? (number - range.minimum) / span : 0.5;
    return kColours.at(static_cast<std::size_t>(std::lround(share * (kColours.size() - 1))));
}

std::string coloured(const std::string& text, double number, const storage::ValueRange& range) {
    if (!std::isfinite(number)) return text;
    return fmt::format("\x1b[48;5;{};38;5;{}m{}\x1b[0m", colourOf(number, range), kBlack, text);
}

std::string legend(const a2l::ObjectContent& content, const storage::ValueRange& range) {
    const value::Conversion& conversion = *content.placed.element(0).conversion;
    std::string text = "  " + conversion.formatPhysical(range.minimum) + " ";
    for (const int colour : kColours)
        text += fmt::format("\x1b[48;5;{}m  \x1b[0m", colour);
    return text + " " + conversion.formatPhysical(range.maximum) + " " + printableText(conversion.unit()) +
           "\n";
}

std::string heatTable(const a2l::ObjectContent& content, value::NumberStyle style) {
    const std::vector<double> numbers = physicalNumbers(content);
    const storage::ValueRange range = finiteRange(numbers);
    if (range.isEmpty()) return objectTable(content, style);
    return objectTable(content, style,
                       [&](std::size_t number, const std::string& text) {
                           return coloured(text, numbers[number], range);
                       }) +
           legend(content, range);
}

/// Where the points lie, from 0 to 1: in even distances when they do not go up.
std::vector<double> placesOf(const std::vector<double>& points, std::size_t count) {
    std::vector<double> places = points;
    const bool rises = places.size() == count &&
                       std::adjacent_find(places.begin(), places.end(),
                                          [](double a, double b) { return !(a < b); }) == places.end();
    if (!rises || !std::isfinite(places.back() - places.front())) {
        places.resize(count);
        for (std::size_t i = 0; i < count; ++i)
            places[i] = static_cast<double>(i);
    }
    const double first = places.front();
    const double span = places.back() - first;
    for (double& place : places)
        place = span > 0 ? (place - first) / span : 0.5;
    return places;
}

/// Of a line through the points, the values of each column.
std::vector<storage::ValueRange> columnsOf(const std::vector<double>& places,
                                           const std::vector<double>& values, std::size_t count) {
    std::vector<storage::ValueRange> columns(count);
    const auto add = [&](double place, double value) {
        if (!std::isfinite(value)) return;
        auto& column = columns[static_cast<std::size_t>(std::lround(place * static_cast<double>(count - 1)))];
        column.minimum = column.isEmpty() ? value : std::min(column.minimum, value);
        column.maximum = column.isEmpty() ? value : std::max(column.maximum, value);
    };
    add(places.front(), values.front());
    for (std::size_t i = 1; i < values.size(); ++i) {
        const double width = places[i] - places[i - 1];
        const auto steps = static_cast<std::size_t>(std::ceil(width * static_cast<double>(2 * count))) + 1;
        for (std::size_t step = 1; step <= steps; ++step) {
            const double share = static_cast<double>(step) / static_cast<double>(steps);
            add(places[i - 1] + share * width, values[i - 1] + share * (values[i] - values[i - 1]));
        }
    }
    return columns;
}

std::string linePlot(const a2l::ObjectContent& content, const PlotStyle& style, value::NumberStyle numbers) {
    const std::vector<double> values = physicalNumbers(content);
    const storage::ValueRange range = finiteRange(values);
    if (range.isEmpty()) return objectTable(content, numbers);
    std::vector<double> points;
    if (hasAxes(content.placed)) {
        const a2l::PlacedAxis& axis = content.placed.axes().front();
        for (const value::Value& raw : content.points(0))
            points.push_back(value::toDouble(axis.about().point.conversion->toPhysical(raw)));
    }
    const value::Conversion& conversion = *content.placed.element(0).conversion;
    const std::vector<std::string> heads = pointTexts(content, 0, numbers);
    const PlotLabels labels{conversion.formatPhysical(range.maximum),
                            conversion.formatPhysical(range.minimum), heads.front(), heads.back()};
    const auto columns = columnsOf(placesOf(points, values.size()), values, plotColumns(style, labels));
    return axisLines(content) + plotText(columns, range, style, labels);
}

}  // namespace

std::string objectPlot(const a2l::ObjectContent& content, const PlotStyle& style,
                       value::NumberStyle numbers) {
    if (content.placed.dimensions().size() == 1) return linePlot(content, style, numbers);
    return style.braille ? heatTable(content, numbers) : objectTable(content, numbers);
}

}  // namespace lm::cli
