#include "a2l/largest_record.h"

#include <string>
#include <utility>

#include "a2l/object_builder.h"
#include "a2l/placer.h"

namespace lm::a2l {
namespace {

using Field = RecordLayout::Field;

/// Of an object that knows what its size depends on, and no more.
Result<std::uint64_t> sizeOf(const Object& object) {
    const ReadMemory nothing;
    return Placer(object, nothing).largest();
}

Axis axisOf(const AxisDescription& source, const std::function<std::uint32_t(std::string_view)>& pointsOf) {
    Axis axis;
    axis.kind = source.kind;
    axis.fixed = source.fixed;
    axis.maxPoints = source.kind == AxisKind::common ? pointsOf(source.reference) : source.maxAxisPoints;
    if (axis.maxPoints == 0) axis.maxPoints = source.fixed.count;
    return axis;
}

}  // namespace

Result<std::uint64_t> largestRecord(const Description& description, const Characteristic& type,
                                    const std::function<std::uint32_t(std::string_view)>& pointsOf) {
    Object object;
    object.name = type.name;
    object.kind = ObjectKind::characteristic;
    object.type = type.type;
    auto record = buildRecord(description, type.deposit, object);
    if (!record) return record.error();
    object.record = std::move(record).value();
    if (object.record.find(Field::functionValues) == nullptr)
        return objectFault(type.name, "RECORD_LAYOUT '" + object.record.layout + "' without FNC_VALUES");
    for (const AxisDescription& source : type.axes) {
        object.axes.push_back(axisOf(source, pointsOf));
        object.dimensions.push_back(object.axes.back().maxPoints);
        if (object.dimensions.back() == 0) return objectFault(type.name, "has an axis without points");
        if (object.axes.size() > kMostAxes) return objectFault(type.name, "has too many axes");
    }
    if (type.axes.empty() && type.type != CharacteristicType::value) object.dimensions = {type.elementCount};
    return sizeOf(object);
}

Result<std::uint64_t> largestRecord(const Description& description, const AxisPoints& type) {
    Object object;
    object.name = type.name;
    object.kind = ObjectKind::axisPoints;
    object.type = CharacteristicType::curve;
    auto record = buildRecord(description, type.deposit, object);
    if (!record) return record.error();
    object.record = std::move(record).value();
    const RecordLayout::Entry* const pairs = object.record.find(Field::axisRescale);
    const bool hasPoints = object.record.find(Field::axisPoints) != nullptr;
    Axis axis;
    axis.kind = hasPoints || pairs == nullptr ? AxisKind::standard : AxisKind::rescale;
    axis.maxPoints = axis.kind == AxisKind::rescale ? pairs->maxPairs : type.maxAxisPoints;
    object.dimensions = {axis.maxPoints};
    object.axes.push_back(std::move(axis));
    return sizeOf(object);
}

std::optional<MemorySpan> largestPlace(const Object& object) {
    const bool hasRecord = object.kind == ObjectKind::characteristic || object.kind == ObjectKind::axisPoints;
    if (!hasRecord || !object.hops.empty() || !object.maps.empty()) return std::nullopt;
    const auto size = sizeOf(object);
    const xcp::Address address = object.first.address;
    if (!size || size.value() == 0 || std::uint64_t{address.address} + size.value() > kAddresses)
        return std::nullopt;
    return MemorySpan{address, static_cast<std::size_t>(size.value())};
}

}  // namespace lm::a2l
