#include "sim/interpolation.h"

namespace lm::sim {
namespace {

struct Position {
    std::size_t point;
    double part;  ///< of the way to the next point
};

/// Axes that do not climb are taken too: calibrated badly, they must not stop the ECU.
Position position(const std::vector<double>& points, double at) {
    if (at <= points.front()) return {0, 0};
    for (std::size_t k = 0; k + 1 < points.size(); ++k) {
        if (at < points[k + 1]) return {k, (at - points[k]) / (points[k + 1] - points[k])};
    }
    return {points.size() - 1, 0};
}

double between(double first, double second, double part) {
    return first + part * (second - first);
}

double along(const std::vector<double>& values, std::size_t row, const Position& at) {
    const std::size_t first = row + at.point;
    return at.part == 0 ? values[first] : between(values[first], values[first + 1], at.part);
}

}  // namespace

double curve(const Curve& table, double x) {
    return table.x.empty() ? 0 : along(table.w, 0, position(table.x, x));
}

double grid(const Grid& table, double x, double y) {
    if (table.x.empty() || table.y.empty()) return 0;
    const Position column = position(table.x, x);
    const Position row = position(table.y, y);
    const std::size_t width = table.x.size();
    const double first = along(table.w, row.point * width, column);
    return row.part == 0 ? first : between(first, along(table.w, (row.point + 1) * width, column), row.part);
}

}  // namespace lm::sim
