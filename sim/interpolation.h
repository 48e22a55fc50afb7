// Curves and maps as the model uses them: points of the axes in use, and straight lines between them.
//
// Threads: pure functions. Lifetime: a table owns its numbers.
#pragma once

#include <cstddef>
#include <vector>

namespace lm::sim {

/// One value for each point of the axis; empty when the ECU's memory holds an impossible number of points.
struct Curve {
    std::vector<double> x = {};
    std::vector<double> w = {};
};

/// One value for each pair of points, those of the first y before those of the second.
struct Grid {
    std::vector<double> x = {};
    std::vector<double> y = {};
    std::vector<double> w = {};
};

/// The value of a curve at x. Before the first point and after the last it stays that of the point; an empty
/// curve is 0 everywhere.
double curve(const Curve& table, double x);

/// The value of a map at (x, y), by the same rules: first along x, then along y.
double grid(const Grid& table, double x, double y);

}  // namespace lm::sim
