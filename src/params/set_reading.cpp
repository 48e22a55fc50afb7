#include "params/set_reading.h"

#include <algorithm>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/printable_text.h"
#include "params/file_number.h"

namespace lm::params {
namespace {

/// Of the parameter that an axis names.
AxisKind kindOf(const Parameter& axis) {
    if (axis.shape == Shape::curve) return AxisKind::curve;
    return axis.dimensions.size() == 1 ? AxisKind::common : AxisKind::rescale;
}

bool samePoints(const std::vector<value::Value>& a, const std::vector<value::Value>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), sameValue);
}

}  // namespace

std::string SetReading::place(std::size_t line, std::string_view what) const {
    return fmt::format("{} line {}: {}", form_, line, what);
}

Error SetReading::error(std::size_t line, std::string_view what) const {
    return {ErrorCode::invalidArgument, place(line, what)};
}

void SetReading::warn(std::size_t line, std::string_view what) {
    read_.warnings.push_back(place(line, what));
}

void SetReading::leaveOut(std::size_t line, const std::string& name, std::string_view why) {
    warn(line, fmt::format("{} {}, left out", name, why));
    read_.set.leftOut.push_back(name);
}

Result<void> SetReading::add(Parameter parameter, std::size_t line) {
    if (!isPlainName(parameter.name))
        return error(line, fmt::format("'{}' is no name of an A2L", printableText(parameter.name)));
    if (const auto [first, isNew] = lines_.emplace(parameter.name, line); !isNew) {
        return error(line, fmt::format("'{}' is there twice (first in line {}); of variants export one",
                                       parameter.name, first->second));
    }
    if (parameter.values.empty()) {
        leaveOut(line, parameter.name, "has no values");
        return {};
    }
    for (const ParameterAxis& axis : parameter.axes) {
        if (axis.kind != AxisKind::fixed || !axis.points.empty() || !axis.reference.empty()) continue;
        leaveOut(line, parameter.name, "has a fixed axis without points");
        return {};
    }
    for (std::size_t i = 0; i < std::min(parameter.axes.size(), parameter.dimensions.size()); ++i) {
        ParameterAxis& axis = parameter.axes[i];
        if (axis.reference.empty() || axis.points.empty()) continue;
        if (axis.points.size() == parameter.dimensions[i]) continue;
        warn(line, fmt::format("{}: the points of its axis {} are not as many as its values, passed over",
                               parameter.name, axis.reference));
        axis.points.clear();
    }
    if (const auto fits = checkShape(parameter); !fits) return error(line, fits.error().text());
    read_.set.parameters.push_back(std::move(parameter));
    return {};
}

void SetReading::settleAxes(Parameter& parameter) {
    for (std::size_t i = 0; i < parameter.axes.size(); ++i) {
        ParameterAxis& axis = parameter.axes[i];
        const Parameter* named = axis.reference.empty() ? nullptr : read_.set.find(axis.reference);
        if (named == nullptr || (named->shape != Shape::axis && named->shape != Shape::curve)) continue;
        axis.kind = kindOf(*named);
        if (axis.kind != AxisKind::common) continue;
        const std::size_t line = lines_[parameter.name];
        if (named->values.size() != parameter.dimensions[i]) {
            warn(line, fmt::format("{} has {} value(s) along its axis {}, which has {}", parameter.name,
                                   parameter.dimensions[i], axis.reference, named->values.size()));
            continue;
        }
        if (!axis.points.empty() && !samePoints(axis.points, named->values)) {
            warn(line, fmt::format("{} repeats other points than its axis {} has; those of the axis count",
                                   parameter.name, axis.reference));
        }
        axis.points = named->values;
    }
}

Result<ReadSet> SetReading::finish() && {
    if (const auto sorted = read_.set.sortByName(); !sorted) return sorted.error();
    for (Parameter& parameter : read_.set.parameters)
        settleAxes(parameter);
    return std::move(read_);
}

}  // namespace lm::params
