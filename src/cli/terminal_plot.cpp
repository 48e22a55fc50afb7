#include "cli/terminal_plot.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace lm::cli {
namespace {

/// Dots of a canvas, the top row first.
class Canvas {
  public:
    Canvas(std::size_t columns, std::size_t rows)
        : columns_(columns), rows_(rows), dots_(columns * rows, false) {}

    void set(std::size_t column, std::size_t row) { dots_[row * columns_ + column] = true; }
    bool at(std::size_t column, std::size_t row) const {
        return column < columns_ && row < rows_ && dots_[row * columns_ + column];
    }
    std::size_t columns() const { return columns_; }
    std::size_t rows() const { return rows_; }

  private:
    std::size_t columns_;
    std::size_t rows_;
    std::vector<bool> dots_;
};

/// The row of a value: 0 for the upper end of the range.
std::size_t rowOf(double value, const storage::ValueRange& range, std::size_t rows) {
    const double span = range.maximum - range.minimum;
    if (!(span > 0)) return rows / 2;
    // Halves: the difference of two doubles may be beyond them.
    const double share = (range.maximum / 2 - value / 2) / (range.maximum / 2 - range.minimum / 2);
    const double last = static_cast<double>(rows - 1);
    return static_cast<std::size_t>(std::lround(std::min(std::max(share, 0.0), 1.0) * last));
}

Canvas drawn(const std::vector<storage::ValueRange>& columns, const storage::ValueRange& range,
             std::size_t rows) {
    Canvas canvas(columns.size(), rows);
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].isEmpty()) continue;
        const std::size_t bottom = rowOf(columns[i].minimum, range, rows);
        for (std::size_t row = rowOf(columns[i].maximum, range, rows); row <= bottom; ++row)
            canvas.set(i, row);
    }
    return canvas;
}

/// U+2800 and one bit per dot: two columns of three, then the fourth row.
std::string brailleCharacter(const Canvas& canvas, std::size_t column, std::size_t row) {
    constexpr unsigned kBits[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
    unsigned dots = 0;
    for (std::size_t y = 0; y < 4; ++y) {
        for (std::size_t x = 0; x < 2; ++x) {
            if (canvas.at(column + x, row + y)) dots |= kBits[y][x];
        }
    }
    if (dots == 0) return " ";
    return {'\xE2', static_cast<char>(0xA0U | (dots >> 6U)), static_cast<char>(0x80U | (dots & 0x3FU))};
}

std::string lineOf(const Canvas& canvas, std::size_t line, bool braille) {
    std::string text;
    if (braille) {
        for (std::size_t column = 0; column < canvas.columns(); column += 2)
            text += brailleCharacter(canvas, column, 4 * line);
    } else {
        for (std::size_t column = 0; column < canvas.columns(); ++column)
            text += canvas.at(column, line) ? '*' : ' ';
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::size_t labelWidth(const PlotLabels& labels) {
    return std::max(characterCount(labels.top), characterCount(labels.bottom));
}

/// Characters behind the labels and the axis.
std::size_t cellsOf(const PlotStyle& style, const PlotLabels& labels) {
    const std::size_t taken = labelWidth(labels) + 2;
    return style.width > taken ? style.width - taken : 1;
}

}  // namespace

std::size_t characterCount(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80; }));
}

std::size_t plotColumns(const PlotStyle& style, const PlotLabels& labels) {
    return cellsOf(style, labels) * (style.braille ? 2 : 1);
}

std::string plotText(const std::vector<storage::ValueRange>& columns, const storage::ValueRange& range,
                     const PlotStyle& style, const PlotLabels& labels) {
    const Canvas canvas = drawn(columns, range, style.height * (style.braille ? 4 : 1));
    const std::size_t labelled = labelWidth(labels);
    const bool flat = !(range.maximum > range.minimum);
    const std::size_t topLine = flat ? style.height / 2 : 0;
    const std::string vertical = style.braille ? "\u2502" : "|";
    const std::string tick = style.braille ? "\u2524" : "+";
    const std::string horizontal = style.braille ? "\u2500" : "-";
    std::string text;
    for (std::size_t line = 0; line < style.height; ++line) {
        const bool isTop = line == topLine;
        const bool isBottom = !flat && line + 1 == style.height;
        const std::string& label = isTop ? labels.top : labels.bottom;
        const std::string shown = isTop || isBottom ? label : "";
        text.append(labelled - characterCount(shown), ' ');
        text +=
            shown + " " + (isTop || isBottom ? tick : vertical) + lineOf(canvas, line, style.braille) + "\n";
    }
    const std::size_t cells = cellsOf(style, labels);
    text += std::string(labelled + 1, ' ') + (style.braille ? "\u2514" : "+");
    for (std::size_t i = 0; i < cells; ++i)
        text += horizontal;
    const std::size_t timed = labels.left.size() + labels.right.size();
    text += "\n" + std::string(labelled + 2, ' ') + labels.left;
    return text + std::string(cells > timed ? cells - timed : 1, ' ') + labels.right + "\n";
}

}  // namespace lm::cli
