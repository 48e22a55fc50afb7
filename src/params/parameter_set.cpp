#include "params/parameter_set.h"

#include <algorithm>
#include <array>

#include <spdlog/fmt/fmt.h>

namespace lm::params {
namespace {

constexpr std::array<std::string_view, 9> kShapeNames = {"scalar", "text",  "block", "curve", "map",
                                                         "cuboid", "cube4", "cube5", "axis"};
constexpr std::array<std::string_view, 5> kAxisKindNames = {"standard", "fixed", "common", "rescale",
                                                            "curve"};

std::size_t axisCount(Shape shape) {
    switch (shape) {
        case Shape::curve:
            return 1;
        case Shape::map:
            return 2;
        case Shape::cuboid:
            return 3;
        case Shape::cube4:
            return 4;
        case Shape::cube5:
            return 5;
        case Shape::scalar:
        case Shape::text:
        case Shape::block:
        case Shape::axis:
            return 0;
    }
    return 0;
}

Error misfit(const Parameter& parameter, const std::string& what) {
    return {ErrorCode::invalidArgument, fmt::format("{}: {}", parameter.name, what)};
}

Result<void> checkAxes(const Parameter& parameter) {
    if (parameter.axes.size() != axisCount(parameter.shape)) {
        return misfit(parameter,
                      fmt::format("{} axes for a {}", parameter.axes.size(), shapeName(parameter.shape)));
    }
    if (parameter.axes.empty()) return {};
    if (parameter.axes.size() != parameter.dimensions.size()) {
        return misfit(parameter, fmt::format("{} axes, but {} dimension(s)", parameter.axes.size(),
                                             parameter.dimensions.size()));
    }
    for (std::size_t i = 0; i < parameter.axes.size(); ++i) {
        const ParameterAxis& axis = parameter.axes[i];
        const bool mayLackPoints = !axis.reference.empty() && axis.points.empty();
        if (!mayLackPoints && axis.points.size() != parameter.dimensions[i]) {
            return misfit(parameter, fmt::format("axis {} has {} point(s), where its dimension wants {}",
                                                 i + 1, axis.points.size(), parameter.dimensions[i]));
        }
        if (!axis.raws.empty() && axis.raws.size() != axis.points.size()) {
            return misfit(parameter, fmt::format("axis {} has {} raw value(s) for {} point(s)", i + 1,
                                                 axis.raws.size(), axis.points.size()));
        }
    }
    return {};
}

}  // namespace

Result<void> ParameterSet::sortByName() {
    std::sort(parameters.begin(), parameters.end(),
              [](const Parameter& a, const Parameter& b) { return a.name < b.name; });
    const auto twice =
        std::adjacent_find(parameters.begin(), parameters.end(),
                           [](const Parameter& a, const Parameter& b) { return a.name == b.name; });
    if (twice == parameters.end()) return {};
    return Error{ErrorCode::invalidArgument, fmt::format("'{}' is there twice", twice->name)};
}

const Parameter* ParameterSet::find(std::string_view name) const {
    const auto found = std::lower_bound(
        parameters.begin(), parameters.end(), name,
        [](const Parameter& parameter, std::string_view wanted) { return parameter.name < wanted; });
    return found != parameters.end() && found->name == name ? &*found : nullptr;
}

Result<void> checkShape(const Parameter& parameter) {
    const bool single = parameter.shape == Shape::scalar || parameter.shape == Shape::text;
    if (single != parameter.dimensions.empty()) {
        return misfit(parameter, fmt::format("{} dimension(s) for a {}", parameter.dimensions.size(),
                                             shapeName(parameter.shape)));
    }
    // A count of values that no memory holds must not wrap round to the one that is there.
    std::size_t wanted = 1;
    for (const std::size_t dimension : parameter.dimensions) {
        if (dimension != 0 && wanted > parameter.values.size() / dimension) {
            return misfit(parameter, fmt::format("{} value(s), which are fewer than its dimensions want",
                                                 parameter.values.size()));
        }
        wanted *= dimension;
    }
    if (parameter.values.size() != wanted) {
        return misfit(parameter, fmt::format("{} value(s), where its dimensions want {}",
                                             parameter.values.size(), wanted));
    }
    if (!parameter.raws.empty() && parameter.raws.size() != wanted) {
        return misfit(parameter,
                      fmt::format("{} raw value(s) for {} value(s)", parameter.raws.size(), wanted));
    }
    return checkAxes(parameter);
}

std::string_view shapeName(Shape shape) {
    return kShapeNames.at(static_cast<std::size_t>(shape));
}
std::string_view axisKindName(AxisKind kind) {
    return kAxisKindNames.at(static_cast<std::size_t>(kind));
}

}  // namespace lm::params
