#include "cli/terminal_plot.h"

#include <limits>

#include <gtest/gtest.h>

namespace lm::cli {
namespace {

using storage::ValueRange;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
const ValueRange kNone;

TEST(TerminalPlot, DrawsIntervalsHolesAndBorders) {
    const PlotLabels labels{"3", "-12", "0 s", "9 s"};
    const struct {
        PlotStyle style;
        std::vector<ValueRange> columns;
        ValueRange range;
        const char* text;
    } rows[] = {
        {{12, 4, false},
         {{-12, -12}, {-12, 3}, kNone, {-7, -2}, {-kInfinity, kInfinity}, {3, kInfinity}, {-kInfinity, -12}},
         {-12, 3},
         "  3 + *  **\n"
         "    | * **\n"
         "    | * **\n"
         "-12 +**  * *\n"},
        {{7, 2, true},
         {{0, 0}, {1, 1}, {6, 7}, kNone},
         {0, 7},
         "  3 \u2524 \u2803\n"
         "-12 \u2524\u2860\n"},
        {{7, 3, false}, {{5, 5}, {5, 5}}, {5, 5}, "    |\n  3 +**\n    |\n"},
    };
    for (const auto& row : rows) {
        const std::string text = plotText(row.columns, row.range, row.style, labels);
        EXPECT_EQ(text.substr(0, text.find(row.style.braille ? "    \u2514" : "    +-")), row.text) << text;
    }
}

}  // namespace
}  // namespace lm::cli
