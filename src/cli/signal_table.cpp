#include "cli/signal_table.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "cli/terminal_plot.h"

namespace lm::cli {
namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kLeastName = 16;
constexpr std::size_t kGreatestName = 48;
constexpr std::size_t kLeastUnit = 4;
constexpr std::size_t kGreatestUnit = 12;
constexpr std::size_t kLeastNumber = 9;
constexpr std::size_t kRate = 9;

bool beginsCharacter(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80;
}

/// Where the character of that number begins.
std::size_t byteOf(std::string_view text, std::size_t character) {
    std::size_t i = 0;
    for (; i < text.size(); ++i) {
        if (beginsCharacter(text[i]) && character-- == 0) break;
    }
    return i;
}

constexpr std::string_view kCut = "..";

/// Cut where it is too long, so that it shows.
std::string clipped(const std::string& text, std::size_t width) {
    if (characterCount(text) <= width) return text;
    if (width <= kCut.size()) return std::string(kCut.substr(0, width));
    return text.substr(0, byteOf(text, width - kCut.size())) + std::string(kCut);
}

/// The same for names, which differ in their ends.
std::string clippedName(const std::string& text, std::size_t width) {
    const std::size_t count = characterCount(text);
    if (count <= width) return text;
    if (width <= kCut.size()) return std::string(kCut.substr(0, width));
    return std::string(kCut) + text.substr(byteOf(text, count - (width - kCut.size())));
}

std::string left(std::string text, std::size_t width) {
    text.append(width - std::min(width, characterCount(text)), ' ');
    return text;
}

std::string right(const std::string& text, std::size_t width) {
    return std::string(width - std::min(width, characterCount(text)), ' ') + text;
}

/// Lines of at most `width` characters, broken behind ", " where that can be.
std::vector<std::string> wrapped(std::string text, std::size_t width) {
    std::vector<std::string> lines;
    while (characterCount(text) > width) {
        std::size_t end = byteOf(text, std::max<std::size_t>(width, 1));
        if (const auto comma = text.rfind(", ", end - 1); comma != std::string::npos && comma + 1 < end)
            end = comma + 2;
        lines.push_back(text.substr(0, end));
        text.erase(0, end);
    }
    lines.push_back(std::move(text));
    return lines;
}

}  // namespace

SignalTable::SignalTable(std::vector<Fixed> signals, std::size_t number)
    : signals_(std::move(signals)),
      greatestNumber_(number),
      wanted_{kLeastName, kLeastNumber, 0, kLeastNumber, kRate} {
    for (const Fixed& signal : signals_) {
        wanted_.name = std::max(wanted_.name, std::min(characterCount(signal.name), kGreatestName));
        if (!signal.unit.empty())
            wanted_.unit =
                std::max({wanted_.unit, kLeastUnit, std::min(characterCount(signal.unit), kGreatestUnit)});
    }
}

/// Columns of no width have no gap either.
std::size_t SignalTable::Widths::total() const {
    std::size_t sum = name;
    for (const std::size_t column : {value, unit, extreme, extreme, rate})
        sum += column == 0 ? 0 : column + kGap;
    return sum;
}

/// The value is what matters most: names get shorter first, then other columns go.
SignalTable::Widths SignalTable::fitted(std::size_t width) const {
    Widths widths = wanted_;
    const auto shrink = [&](std::size_t& column, std::size_t least) {
        if (widths.total() > width)
            column -= std::min(widths.total() - width, column - std::min(column, least));
    };
    shrink(widths.name, kLeastName);
    if (widths.total() > width) widths.rate = 0;
    if (widths.total() > width) widths.extreme = 0;
    if (widths.total() > width) widths.unit = 0;
    shrink(widths.name, kLeastName / 2);
    shrink(widths.value, 1);
    // What the columns that went had left over.
    if (widths.total() < width) widths.name = std::min(wanted_.name, widths.name + width - widths.total());
    return widths;
}

std::vector<ScreenLine> SignalTable::statusLines(ScreenSize size, const TableStatus& status) {
    using Style = ScreenLine::Style;
    std::vector<ScreenLine> lines = {{clipped(status.summary, size.width)}};
    if (!status.losses.empty()) {
        for (std::string& text : wrapped(status.losses, size.width))
            lines.push_back({std::move(text), Style::alarm});
    }
    if (!status.message.empty()) lines.push_back({clipped(status.message, size.width)});
    return lines;
}

std::size_t SignalTable::room(ScreenSize size, const TableStatus& status) const {
    const std::size_t taken = statusLines(size, status).size() + 1;
    const std::size_t left = size.height > taken ? size.height - taken : 0;
    if (left >= count()) return count();
    // The last line tells which of them are shown.
    return left >= 2 ? left - 1 : left;
}

std::string SignalTable::rowText(const Widths& widths, const Fixed& fixed, const SignalRow& row) {
    const std::string gap(kGap, ' ');
    std::string text = left(clippedName(fixed.name, widths.name), widths.name);
    const auto add = [&](const std::string& column, std::size_t width) {
        if (width != 0) text += gap + right(clipped(column, width), width);
    };
    add(row.value, widths.value);
    if (widths.unit != 0) text += gap + left(clipped(fixed.unit, widths.unit), widths.unit);
    add(row.least, widths.extreme);
    add(row.greatest, widths.extreme);
    add(row.rate, widths.rate);
    return text;
}

std::vector<ScreenLine> SignalTable::lines(ScreenSize size, const TableStatus& status, std::size_t first,
                                           const std::vector<SignalRow>& rows) {
    for (const SignalRow& row : rows) {
        const auto grow = [this](std::size_t& width, const std::string& text) {
            width = std::max(width, std::min(characterCount(text), greatestNumber_));
        };
        grow(wanted_.value, row.value);
        grow(wanted_.extreme, row.least);
        grow(wanted_.extreme, row.greatest);
    }
    const Widths widths = fitted(size.width);
    std::vector<ScreenLine> lines = statusLines(size, status);
    const std::string heading = rowText(widths, {"signal", "unit"}, {"value", "min", "max", "rate"});
    lines.push_back({left(clipped(heading, size.width), size.width), ScreenLine::Style::heading});
    for (std::size_t i = 0; i < rows.size(); ++i)
        lines.push_back({clipped(rowText(widths, signals_[first + i], rows[i]), size.width)});
    if (rows.size() < count()) {
        const std::string place = fmt::format("signals {}-{} of {}, the arrow keys scroll", first + 1,
                                              first + rows.size(), count());
        lines.push_back({clipped(place, size.width)});
    }
    if (lines.size() > size.height) lines.resize(size.height);
    return lines;
}

}  // namespace lm::cli
