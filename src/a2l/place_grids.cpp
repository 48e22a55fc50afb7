// Places of values and points, once the record is laid out.

#include <algorithm>
#include <cmath>
#include <utility>

#include "a2l/placer.h"

namespace lm::a2l {

using Field = RecordLayout::Field;

Grid Placer::gridOf(const Entry& entry, bool& pointsAway) const {
    const bool isSecond = alternation_ && alternation_->second == &entry;
    const Entry* const placedAs = isSecond ? alternation_->first : &entry;
    const auto slot = std::find_if(slots_.begin(), slots_.end(),
                                   [&](const Slot& candidate) { return candidate.entry == placedAs; });
    std::uint64_t at = slot->at;
    pointsAway = isPointer(placedAs->addressType);
    if (pointsAway) at = targets_.at(placedAs);
    Grid grid;
    grid.base = {static_cast<std::uint32_t>(at), base_.extension};
    grid.size = value::dataTypeSize(entry.dataType);
    return grid;
}

Grid Placer::valueGrid(Grid grid, const Entry& entry) const {
    std::vector<std::uint32_t> strides;
    for (std::size_t i = 0; i < counts_.size(); ++i) {
        grid.counts.push_back(*counts_[i]);
        strides.push_back(record().staticRecord ? *sizing(i) : *counts_[i]);
        grid.decreasing.push_back(!object_->axes.empty() && isDecreasing(*object_, i));
    }
    const std::uint64_t step = object_->recordStride.value_or(grid.size);
    grid.strides = stridesOf(strides, step, entry.indexMode == IndexMode::columnDir);
    return grid;
}

void Placer::finishAxis(std::size_t number, const Entry& entry, Grid grid, bool pointsAway) {
    PlacedAxis& axis = placed_.axes_[number];
    axis.pointsAway_ = pointsAway;
    if (entry.field == Field::axisRescale) {
        axis.isPairs_ = true;
        grid.counts = {2, axis.count_};
        grid.strides = {grid.size, 2 * grid.size};
        grid.decreasing = {false, entry.decreasing};
    } else {
        axis.stored_ = true;
        grid.counts = {axis.count_};
        grid.strides = {grid.size};
        grid.decreasing = {entry.decreasing};
    }
    axis.grid_ = std::move(grid);
}

void Placer::finishAlternation() {
    // The places are those of the points in use, but for a static record those of all there may be.
    Grid& values = placed_.values_;
    const std::size_t outer = alternation_->axis;
    const std::uint32_t inner = values.counts.size() > 1 ? values.counts[1 - outer] : 1;
    const bool isStatic = record().staticRecord && values.counts.size() > 1;
    const auto parts = alternation_->place(values.base.address, values.counts[outer],
                                           isStatic ? *sizing(1 - outer) : inner, record());
    values.uneven = outer;
    values.starts = parts.valueStarts;
    if (values.counts.size() > 1) values.strides[1 - outer] = parts.valueStride;
    Grid& points = placed_.axes_[outer].grid_;
    points.uneven = 0;
    points.starts = parts.pointStarts;
}

/// What pointers lead to may reach too far, too.
Result<PlacedObject> Placer::checked() {
    const auto fits = [](const Grid& grid) { return grid.base.address + grid.extent() <= kAddresses; };
    const std::uint64_t each = object_->recordStride.value_or(object_->first.size());
    if (saturatedProduct(placed_.dimensions_, each) > kLargestObject) return fault("is larger than 64 MiB");
    bool all = fits(placed_.values_);
    for (const PlacedAxis& axis : placed_.axes_)
        all = all && fits(axis.grid_);
    if (!all) return fault("reaches beyond the last address");
    return std::move(placed_);
}

Result<PlacedObject> Placer::finish() {
    for (const Entry& entry : record().entries) {
        const bool isArray = entry.field <= Field::axisRescale;
        if (!isNeeded(entry)) continue;
        if (!isArray) {
            PlacedAxis& axis = placed_.axes_[entry.axis];
            const double parameter = parameters_.at(&entry);
            if (entry.field == Field::offset) axis.offset_ = parameter;
            if (entry.field == Field::shift) axis.step_ = std::exp2(parameter);
            if (entry.field == Field::distance) axis.step_ = parameter;
            continue;
        }
        bool pointsAway = false;
        Grid grid = gridOf(entry, pointsAway);
        if (entry.field == Field::functionValues) {
            placed_.values_ = valueGrid(std::move(grid), entry);
            placed_.pointsAway_ = pointsAway;
        } else {
            finishAxis(entry.axis, entry, std::move(grid), pointsAway);
        }
    }
    for (const auto& count : counts_)
        placed_.dimensions_.push_back(*count);
    if (alternation_) finishAlternation();
    if (object_->kind == ObjectKind::axisPoints) {
        const PlacedAxis& axis = placed_.axes_.front();
        placed_.values_ = axis.grid_;
        if (axis.isPairs_) placed_.dimensions_ = {2 * axis.count_};
    }
    return checked();
}

}  // namespace lm::a2l
