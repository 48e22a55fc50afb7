// The record of an object laid out: where its parts begin, and what of them must be read to know it.

#include <algorithm>
#include <string>

#include "a2l/object_name.h"
#include "a2l/placer.h"

namespace lm::a2l {

using Field = RecordLayout::Field;

namespace {

/// What a short upload brings on the smallest bus: a gap below it costs no packet.
constexpr std::size_t kSmallPacket = 7;

}  // namespace

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
    if (object_->recordStride) return 1;  // of the first record, as which the others are laid out
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
    const auto needed = [this](const Entry& entry) { return isWhole_ || isNeeded(entry); };
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
        end_ = at;
    }
    return true;
}

Result<std::uint64_t> Placer::largest() {
    for (std::size_t i = 0; i < object_->dimensions.size(); ++i) {
        if (object_->axes.empty()) {
            counts_.emplace_back(object_->dimensions[i]);
        } else {
            const bool isShared = object_->axes[i].kind == AxisKind::common;
            counts_.emplace_back(isShared || countIsRead(i) ? object_->axes[i].maxPoints : givenCount(i));
        }
    }
    auto alternation = Alternation::of(*object_);
    if (!alternation) return alternation.error();
    alternation_ = std::move(alternation).value();
    isWhole_ = true;
    if (auto laid = layOut(); !laid) return laid.error();
    return end_ - base_.address;
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
            const std::span<const std::uint8_t> bytes(image.at(addressOf(slot), size), size);
            placed_.placedBy_.push_back({addressOf(slot), {bytes.begin(), bytes.end()}, true});
            if (auto taken = take(slot, bytes); !taken) return taken;
        }
    }
}

}  // namespace lm::a2l
