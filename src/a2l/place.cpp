// Where the parts of an object lie: from its record, the pointers and the counts that the memory holds.
//
// A record is laid out as far as the counts are known, what small things are needed of that part are read,
// and so on until all is placed: with counts at the front, as records have them, one reading is enough.

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "a2l/object_name.h"
#include "a2l/placed_object.h"
#include "a2l/record_part.h"

namespace lm::a2l {

using Field = RecordLayout::Field;
using Entry = RecordLayout::Entry;

namespace {

/// What a short upload brings on the smallest bus: a gap below it costs no packet.
constexpr std::size_t kSmallPacket = 7;

}  // namespace

class Placer {
  public:
    Placer(const Object& object, const ReadMemory& read)
        : object_(std::make_shared<const Object>(object)), read_(read), base_(object.first.address) {}

    Result<PlacedObject> run() {
        placed_.object_ = object_;
        if (auto followed = followHops(); !followed) return followed.error();
        if (!object_->maps.empty()) return placeMaps();
        // What has no layout lies in one piece.
        const bool isPlain = object_->kind == ObjectKind::measurement || object_->kind == ObjectKind::blob;
        if (isPlain) return placePlain();
        if (auto started = startAxes(); !started) return started.error();
        if (auto laid = layOutAll(); !laid) return laid.error();
        return finish();
    }

  private:
    /// A part of the record that begins at an address.
    struct Slot {
        const Entry* entry;
        std::uint64_t at;
    };

    Error fault(const std::string& what) const {
        return {ErrorCode::invalidArgument, object_->name + ": " + what};
    }
    const Record& record() const { return object_->record; }
    Result<std::uint64_t> readPointer(std::span<const std::uint8_t> bytes,
                                      std::optional<ByteOrder> order = {}) const;
    Result<void> followHops();
    Result<PlacedObject> placeMaps();
    Result<PlacedObject> placePlain();

    Result<void> startAxes();
    Result<void> startShared(const Axis& axis, PlacedAxis& placed);
    Result<void> takeCount(std::size_t axis, std::uint64_t count);
    bool countIsRead(std::size_t axis) const;

    Result<void> layOutAll();
    Result<bool> layOut();
    Result<std::optional<std::uint64_t>> sizeOf(const Entry& entry, std::uint64_t at) const;
    std::optional<std::uint64_t> elementsOf(const Entry& entry) const;
    std::optional<std::uint32_t> sizing(std::size_t dimension) const;
    bool isNeeded(const Entry& entry) const;
    std::vector<Slot> pending() const;
    Result<void> take(const Slot& slot, std::span<const std::uint8_t> bytes);

    Result<PlacedObject> finish();
    void finishAlternation();
    Result<PlacedObject> checked();
    Grid gridOf(const Entry& entry, bool& pointsAway) const;
    Grid valueGrid(Grid grid, const Entry& entry) const;
    void finishAxis(std::size_t number, const Entry& entry, Grid grid, bool pointsAway);

    std::shared_ptr<const Object> object_;
    const ReadMemory& read_;
    xcp::Address base_;
    PlacedObject placed_;
    std::optional<Alternation> alternation_;
    std::vector<std::optional<std::uint32_t>> counts_;  ///< in use, per dimension
    std::map<const Entry*, double> parameters_;
    std::map<const Entry*, std::uint64_t> targets_;  ///< where pointers in the record point to
    std::vector<Slot> slots_;
};

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
            return fault("the maps of MAP_LIST differ in size");
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

Result<void> Placer::startShared(const Axis& axis, PlacedAxis& placed) {
    auto shared = place(*axis.shared, read_);
    if (!shared) return fault(shared.error().text());
    const PlacedAxis& points = shared.value().axes_.front();
    placed.name_ = axis.shared->name;
    placed.stored_ = points.stored_;
    placed.isPairs_ = points.isPairs_;
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
            std::uint32_t count = axes[i].kind == AxisKind::rescale ? 0 : record().fixedCounts[i];
            if (count == 0) count = axes[i].fixed.count;
            if (count == 0) count = axes[i].maxPoints;
            if (auto taken = takeCount(i, count); !taken) return taken.error();
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

std::optional<std::uint32_t> Placer::sizing(std::size_t dimension) const {
    if (record().staticRecord || record().staticOffsets) {
        return object_->axes.empty() ? object_->dimensions[dimension] : object_->axes[dimension].maxPoints;
    }
    return counts_[dimension];
}

std::optional<std::uint64_t> Placer::elementsOf(const Entry& entry) const {
    constexpr std::uint64_t kPair = 2;
    if (entry.field == Field::axisPoints) return sizing(entry.axis);
    if (entry.field == Field::axisRescale) {
        const auto pairs = sizing(0);
        return pairs ? std::optional(kPair * *pairs) : std::nullopt;
    }
    std::vector<std::uint32_t> counts;
    for (std::size_t i = 0; i < object_->dimensions.size(); ++i) {
        const auto count = sizing(i);
        if (!count) return std::nullopt;
        counts.push_back(*count);
    }
    return saturatedProduct(counts, 1);
}

Result<std::optional<std::uint64_t>> Placer::sizeOf(const Entry& entry, std::uint64_t at) const {
    if (isPointer(entry.addressType)) return std::optional<std::uint64_t>(pointerSize(entry.addressType));
    const std::size_t size = value::dataTypeSize(entry.dataType);
    if (entry.field > Field::axisRescale) return std::optional<std::uint64_t>(size);
    const auto elements = elementsOf(entry);
    if (!elements) return std::optional<std::uint64_t>();
    if (*elements > kLargestObject / size) return fault("is larger than 64 MiB");
    if (!alternation_ || !alternation_->holds(entry)) return std::optional(*elements * size);
    const auto outer = sizing(alternation_->axis);
    const auto values = elementsOf(*alternation_->values);
    if (!outer || !values) return std::optional<std::uint64_t>();
    if (*values > kLargestObject / size) return fault("is larger than 64 MiB");
    return std::optional(alternation_->place(at, *outer, *values / *outer, record()).size);
}

/// Whether the object is not placed before this part of its record is.
bool Placer::isNeeded(const Entry& entry) const {
    const std::size_t axes = object_->axes.size();
    switch (entry.field) {
        case Field::functionValues:
            return object_->kind != ObjectKind::axisPoints;
        case Field::axisPoints:
            return entry.axis < axes && object_->axes[entry.axis].kind == AxisKind::standard;
        case Field::axisRescale:
        case Field::rescaleCount:
            return object_->kind == ObjectKind::axisPoints && object_->axes[0].kind == AxisKind::rescale &&
                   entry.axis == 0;
        case Field::pointCount:
            return entry.axis < axes && countIsRead(entry.axis) &&
                   object_->axes[entry.axis].kind != AxisKind::rescale;
        case Field::offset:
        case Field::shift:
        case Field::distance:
            return entry.axis < axes && object_->axes[entry.axis].kind == AxisKind::fixed &&
                   !object_->axes[entry.axis].fixed.given;
        case Field::skipped:
            return false;
    }
    return false;
}

/// False when a count is missing for the parts behind those in slots_.
Result<bool> Placer::layOut() {
    slots_.clear();
    std::uint64_t at = base_.address;
    const auto& entries = record().entries;
    const auto needed = [this](const Entry& entry) { return isNeeded(entry); };
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
        if (std::none_of(entry, entries.end(), needed)) return true;  // the rest is of no concern
        if (alternation_ && alternation_->second == &*entry) continue;
        if (entry->field <= Field::axisRescale && entry->field != Field::functionValues &&
            entry->axis >= object_->axes.size()) {
            return fault("RECORD_LAYOUT '" + record().layout +
                         "' has points of an axis that the object lacks");
        }
        if (!slots_.empty()) at = roundedUp(at, borderOf(*entry, record()));
        slots_.push_back({&*entry, at});
        const auto size = sizeOf(*entry, at);
        if (!size) return size.error();
        if (!size.value()) return false;
        at += *size.value();
        if (at > kAddresses) return fault("reaches beyond the last address");
    }
    return true;
}

std::vector<Placer::Slot> Placer::pending() const {
    std::vector<Slot> all;
    for (const Slot& slot : slots_) {
        const Entry& entry = *slot.entry;
        if (!isNeeded(entry)) continue;
        const bool isArray = entry.field <= Field::axisRescale;
        const bool done = isArray ? !isPointer(entry.addressType) || targets_.contains(&entry)
                                  : parameters_.contains(&entry);
        if (!done) all.push_back(slot);
    }
    return all;
}

Result<void> Placer::take(const Slot& slot, std::span<const std::uint8_t> bytes) {
    const Entry& entry = *slot.entry;
    if (isPointer(entry.addressType)) {
        const auto target = readPointer(bytes);
        if (!target) return target.error();
        targets_[&entry] = target.value();
        return {};
    }
    value::RawCoding coding;
    coding.dataType = entry.dataType;
    coding.byteOrder = object_->first.coding.byteOrder;
    const double number = value::decodeRaw(bytes.data(), coding);
    parameters_[&entry] = number;
    if (entry.field != Field::pointCount && entry.field != Field::rescaleCount) return {};
    constexpr double kMost = 4294967295.0;
    return takeCount(entry.axis, static_cast<std::uint64_t>(number >= 0 && number <= kMost ? number : kMost));
}

Result<void> Placer::layOutAll() {
    auto alternation = Alternation::of(*object_);
    if (!alternation) return alternation.error();
    alternation_ = std::move(alternation).value();
    for (;;) {
        const auto complete = layOut();
        if (!complete) return complete.error();
        const std::vector<Slot> small = pending();
        if (small.empty() && complete.value()) return {};
        if (small.empty()) return fault("the number of points lies behind the points that it counts");
        std::vector<MemorySpan> spans;
        const auto sizeOfSlot = [](const Entry& entry) {
            return isPointer(entry.addressType) ? pointerSize(entry.addressType)
                                                : value::dataTypeSize(entry.dataType);
        };
        const auto addressOf = [this](const Slot& slot) {
            return xcp::Address{static_cast<std::uint32_t>(slot.at), base_.extension};
        };
        for (const Slot& slot : small) {
            spans.push_back({addressOf(slot), sizeOfSlot(*slot.entry)});
            if (spans.back().end() > kAddresses) return fault("reaches beyond the last address");
        }
        MemoryImage image;
        if (auto loaded = image.load(merged(std::move(spans), kSmallPacket), read_); !loaded) return loaded;
        for (const Slot& slot : small) {
            const std::size_t size = sizeOfSlot(*slot.entry);
            if (auto taken = take(slot, {image.at(addressOf(slot), size), size}); !taken) return taken;
        }
    }
}

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
    grid.strides = stridesOf(strides, grid.size, entry.indexMode == IndexMode::columnDir);
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
    if (saturatedProduct(placed_.dimensions_, object_->first.size()) > kLargestObject)
        return fault("is larger than 64 MiB");
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

Result<PlacedObject> place(const Object& object, const ReadMemory& read) {
    return Placer(object, read).run();
}

}  // namespace lm::a2l
