#include "a2l/record_part.h"

#include <algorithm>
#include <string>

namespace lm::a2l {

using Field = RecordLayout::Field;
using Entry = RecordLayout::Entry;

std::uint64_t saturatedProduct(std::span<const std::uint32_t> counts, std::uint64_t size) {
    for (const std::uint32_t count : counts)
        size = count == 0 || size <= 2 * kAddresses / count ? size * count : 2 * kAddresses;
    return size;
}

std::uint64_t roundedUp(std::uint64_t address, std::uint64_t border) {
    return (address + border - 1) / border * border;
}

std::uint64_t borderOf(const Entry& entry, const Record& record) {
    switch (entry.addressType) {
        case AddressType::direct:
            return record.border(entry.dataType);
        case AddressType::pbyte:
            return record.border(value::DataType::ubyte);
        case AddressType::pword:
            return record.border(value::DataType::uword);
        case AddressType::plong:
            return record.border(value::DataType::ulong);
        case AddressType::plonglong:
            return record.border(value::DataType::uint64);
    }
    return 1;
}

std::vector<std::uint64_t> stridesOf(std::span<const std::uint32_t> counts, std::size_t size,
                                     bool columnDir) {
    std::vector<std::uint64_t> strides(counts.size());
    std::uint64_t stride = size;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        // X and Y change places, the others do not.
        const std::size_t dimension = columnDir && counts.size() > 1 && i < 2 ? 1 - i : i;
        strides[dimension] = stride;
        stride *= counts[dimension];
    }
    return strides;
}

bool isDecreasing(const Object& object, std::size_t axis) {
    const Axis& about = object.axes[axis];
    if (about.kind == AxisKind::standard) {
        const Entry* const entry = object.record.find(Field::axisPoints, axis);
        return entry != nullptr && entry->decreasing;
    }
    return about.kind == AxisKind::common && about.shared->record.find(Field::axisPoints)->decreasing;
}

Alternation::Places Alternation::place(std::uint64_t start, std::uint32_t count, std::uint64_t perPoint,
                                       const Record& record) const {
    const std::uint64_t pointBorder = record.border(points->dataType);
    const std::uint64_t valueBorder = record.border(values->dataType);
    const std::uint64_t valueSize = value::dataTypeSize(values->dataType);
    Places places;
    places.valueStride = roundedUp(valueSize, valueBorder);
    std::uint64_t at = start;
    const auto put = [&](std::uint64_t border, std::uint64_t size, std::vector<std::uint32_t>& starts) {
        if (at != start) at = roundedUp(at, border);
        starts.push_back(static_cast<std::uint32_t>(at - start));
        at += size;
    };
    const std::uint64_t column = (perPoint - 1) * places.valueStride + valueSize;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (first == points) put(pointBorder, value::dataTypeSize(points->dataType), places.pointStarts);
        put(valueBorder, column, places.valueStarts);
        if (first == values) put(pointBorder, value::dataTypeSize(points->dataType), places.pointStarts);
    }
    places.size = at - start;
    return places;
}

Result<std::optional<Alternation>> Alternation::of(const Object& object) {
    const auto fault = [&](ErrorCode code, const std::string& what) {
        return Error{code, object.name + ": RECORD_LAYOUT '" + object.record.layout + "' " + what};
    };
    const Entry* const values = object.record.find(Field::functionValues);
    const bool isSingle = object.dimensions.empty() || object.kind == ObjectKind::axisPoints;
    if (isSingle || values == nullptr || values->indexMode <= IndexMode::columnDir)
        return std::optional<Alternation>();
    if (values->indexMode == IndexMode::alternateCurves)
        return fault(ErrorCode::unsupported, "has ALTERNATE_CURVES, which is not supported");
    if (values->indexMode == IndexMode::unknown)
        return fault(ErrorCode::unsupported, "has an index mode that is not known");
    Alternation alternation;
    alternation.axis = values->indexMode == IndexMode::alternateWithX ? 0 : 1;
    const std::size_t axes = object.axes.size();
    alternation.values = values;
    alternation.points = object.record.find(Field::axisPoints, alternation.axis);
    const bool fits = alternation.axis < axes && axes <= 2 && alternation.points != nullptr &&
                      object.axes[alternation.axis].kind == AxisKind::standard &&
                      alternation.points->addressType == values->addressType;
    if (!fits)
        return fault(ErrorCode::invalidArgument,
                     "lets the values alternate with an axis that it does not store");
    const bool pointsFirst = alternation.points < values;
    alternation.first = pointsFirst ? alternation.points : values;
    alternation.second = pointsFirst ? values : alternation.points;
    return std::optional(alternation);
}

}  // namespace lm::a2l
