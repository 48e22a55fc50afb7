// Where the parts of an object lie: from its record, the pointers and the counts that the memory holds.

#include <algorithm>
#include <string>
#include <utility>

#include "a2l/object_name.h"
#include "a2l/placer.h"

namespace lm::a2l {

using Field = RecordLayout::Field;

Result<std::uint64_t> Placer::readPointer(std::span<const std::uint8_t> bytes,
                                          std::optional<ByteOrder> order) const {
    constexpr std::size_t kAddressSize = 4;
    std::uint64_t target =
        readSized(bytes.data(), bytes.size(), order.value_or(object_->first.coding.byteOrder));
    if (bytes.size() < kAddressSize) target = (target + record().nearPointerOffset) & 0xFFFFFFFFU;
    if (target > 0xFFFFFFFFU) return fault("a pointer leads beyond the last address");
    return target;
}

Result<void> Placer::followHops() {
    for (const PointerHop& hop : object_->hops) {
        const auto bytes = read_(base_, hop.size);
        if (!bytes) return bytes.error();
        if (bytes.value().size() != hop.size) return fault("a pointer could not be read");
        placed_.placedBy_.push_back({base_, bytes.value()});
        const auto target = readPointer(bytes.value(), hop.byteOrder);
        if (!target) return target.error();
        if (target.value() + hop.offset > 0xFFFFFFFFU)
            return fault("a pointer leads beyond the last address");
        base_.address = static_cast<std::uint32_t>(target.value() + hop.offset);
    }
    return {};
}

Result<PlacedObject> Placer::placeMaps() {
    std::vector<std::uint32_t> dimensions;
    for (const auto& map : object_->maps) {
        auto placed = place(*map, read_);
        if (!placed) return fault(placed.error().text());
        if (!placed_.maps_.empty() && placed.value().dimensions_ != placed_.maps_.front().dimensions_)
            return fault("the maps '" + object_->maps.front()->name + "' and '" + map->name +
                         "' of MAP_LIST differ in size");
        placed_.maps_.push_back(std::move(placed).value());
    }
    const PlacedObject& first = placed_.maps_.front();
    placed_.dimensions_ = first.dimensions_;
    placed_.axes_ = first.axes_;
    // Z alone is the object's own; its points lie in no record.
    PlacedAxis z;
    z.axis_ = std::shared_ptr<const Axis>(object_, &object_->axes[2]);
    z.name_ = z.axis_->point.name;
    z.count_ = static_cast<std::uint32_t>(object_->maps.size());
    if (z.axis_->kind == AxisKind::common || z.axis_->kind == AxisKind::rescale) {
        if (auto shared = startShared(*z.axis_, z); !shared) return shared.error();
    } else if (z.axis_->kind == AxisKind::standard ||
               (z.axis_->kind == AxisKind::fixed && !z.axis_->fixed.given)) {
        return fault("the points of axis z lie in no record");
    }
    if (z.count_ != object_->maps.size())
        return fault("MAP_LIST has " + std::to_string(object_->maps.size()) + " maps for " +
                     std::to_string(z.count_) + " points of axis z");
    placed_.dimensions_.push_back(z.count_);
    placed_.axes_.push_back(std::move(z));
    return std::move(placed_);
}

Result<PlacedObject> Placer::placePlain() {
    placed_.dimensions_ = object_->dimensions;
    Grid& grid = placed_.values_;
    grid.base = base_;
    grid.size = object_->first.size();
    grid.counts = object_->dimensions;
    grid.decreasing.assign(grid.counts.size(), false);
    grid.strides = stridesOf(grid.counts, grid.size, object_->columnDir);
    const auto size = saturatedProduct(grid.counts, grid.size);
    if (size > kLargestObject) return fault("is larger than 64 MiB");
    if (base_.address + size > kAddresses) return fault("reaches beyond the last address");
    return std::move(placed_);
}

bool Placer::countIsRead(std::size_t axis) const {
    const AxisKind kind = object_->axes[axis].kind;
    return kind != AxisKind::common &&
           (kind != AxisKind::rescale || object_->kind == ObjectKind::axisPoints) &&
           record().find(kind == AxisKind::rescale ? Field::rescaleCount : Field::pointCount, axis) !=
               nullptr;
}

/// The number of points where the memory does not tell it.
std::uint32_t Placer::givenCount(std::size_t axis) const {
    const Axis& about = object_->axes[axis];
    if (about.kind != AxisKind::rescale && record().fixedCounts[axis] != 0) return record().fixedCounts[axis];
    return about.fixed.count != 0 ? about.fixed.count : about.maxPoints;
}

Result<void> Placer::startShared(const Axis& axis, PlacedAxis& placed) {
    auto shared = place(*axis.shared, read_);
    if (!shared) return fault(shared.error().text());
    const PlacedAxis& points = shared.value().axes_.front();
    placed.name_ = axis.shared->name;
    placed.stored_ = points.stored_;
    placed.isPairs_ = points.isPairs_;
    placed.pointsAway_ = points.pointsAway_;
    placed.placedBy_ = shared.value().placedBy();
    placed.grid_ = points.grid_;
    placed.count_ = axis.kind == AxisKind::rescale ? axis.maxPoints : points.count_;
    return {};
}

Result<void> Placer::startAxes() {
    const auto& axes = object_->axes;
    counts_.resize(object_->dimensions.size());
    if (axes.empty()) counts_.assign(object_->dimensions.begin(), object_->dimensions.end());
    for (std::size_t i = 0; i < axes.size(); ++i) {
        PlacedAxis& placed = placed_.axes_.emplace_back();
        placed.axis_ = std::shared_ptr<const Axis>(object_, &axes[i]);
        placed.name_ = axes[i].point.name;
        const bool isShared = axes[i].kind == AxisKind::common ||
                              (axes[i].kind == AxisKind::rescale && axes[i].shared != nullptr);
        if (isShared) {
            if (auto shared = startShared(axes[i], placed); !shared) return shared.error();
            counts_[i] = placed.count_;
        } else if (!countIsRead(i)) {
            if (auto taken = takeCount(i, givenCount(i)); !taken) return taken.error();
        }
    }
    return {};
}

Result<void> Placer::takeCount(std::size_t axis, std::uint64_t count) {
    const Axis& about = object_->axes[axis];
    const auto asked = std::to_string(count) + " points on axis " + std::string(axisSuffix(axis).substr(1));
    if (count == 0) return fault(asked + ", at least 1 is needed");
    std::uint64_t most = about.maxPoints;
    if (!about.fixed.values.empty()) most = std::min<std::uint64_t>(most, about.fixed.values.size());
    if (count > most) return fault(asked + ", at most " + std::to_string(most) + " are possible");
    placed_.axes_[axis].count_ = static_cast<std::uint32_t>(count);
    counts_[axis] = placed_.axes_[axis].count_;
    return {};
}

Result<PlacedObject> place(const Object& object, const ReadMemory& read) {
    return Placer(object, read).run();
}

}  // namespace lm::a2l
