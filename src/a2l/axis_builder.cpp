// Axes and record layouts of objects, from what the A2L says of them.

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <utility>

#include "a2l/object_builder.h"

namespace lm::a2l {
namespace {

using Field = RecordLayout::Field;
using value::DataType;

std::string inQuotes(std::string_view name) {
    return "'" + std::string(name) + "'";
}

/// One axis on its way from its AXIS_DESCR.
struct AxisPart {
    const Description& description;
    const AxisDescription& source;
    Object& object;
    std::string name;  ///< of the axis
    std::size_t number;
    std::size_t referencesLeft;
};

/// Conversion, unit and limits of the points, as the AXIS_DESCR has them.
Result<value::Element> buildPoint(const AxisPart& part, DataType type, ByteOrder order) {
    value::Element point;
    point.name = part.name;
    point.coding.dataType = type;
    point.coding.byteOrder = order;
    point.lowerLimit = part.source.lowerLimit;
    point.upperLimit = part.source.upperLimit;
    const std::string_view method =
        part.source.kind == AxisKind::curve ? "NO_COMPU_METHOD" : part.source.conversion;
    auto conversion =
        buildConversionOf(part.description, part.name, method, part.source.format, part.source.physUnit);
    if (!conversion) return conversion.error();
    point.conversion = std::make_shared<const value::Conversion>(std::move(conversion).value());
    return point;
}

Result<void> buildStandard(const AxisPart& part, Axis& axis) {
    const RecordLayout::Entry* const entry = part.object.record.find(Field::axisPoints, part.number);
    if (entry == nullptr) {
        return objectFault(part.name, "RECORD_LAYOUT " + inQuotes(part.object.record.layout) +
                                          " without the points of this STD_AXIS");
    }
    auto order = byteOrderOf(part.description, part.source, part.name, part.object.assumptions);
    if (!order) return order.error();
    if (!part.source.byteOrder && order.value() != part.object.first.coding.byteOrder)
        part.object.assumptions.add(Assumption::axisByteOrder);
    if (entry->decreasing) part.object.assumptions.add(Assumption::decreasingPairs);
    const Deposit deposit =
        part.source.deposit == Deposit::notGiven ? part.description.defaults.deposit : part.source.deposit;
    axis.difference = deposit == Deposit::difference;
    if (axis.difference) part.object.assumptions.add(Assumption::firstDifference);
    auto point = buildPoint(part, entry->dataType, order.value());
    if (!point) return point.error();
    axis.point = std::move(point).value();
    return {};
}

/// Points that are computed have no type; a double holds them.
Result<void> buildComputed(const AxisPart& part, Axis& axis) {
    const Record& record = part.object.record;
    if (axis.kind == AxisKind::fixed && !axis.fixed.given &&
        record.find(Field::offset, part.number) == nullptr) {
        return objectFault(part.name, "FIX_AXIS without FIX_AXIS_PAR");
    }
    if (axis.maxPoints == 0) axis.maxPoints = axis.fixed.count;
    auto point = buildPoint(part, DataType::float64, ByteOrder::littleEndian);
    if (!point) return point.error();
    axis.point = std::move(point).value();
    return {};
}

/// An axis whose points are an AXIS_PTS: that has type, form and monotony, the AXIS_DESCR all that is shown.
Result<void> buildShared(const AxisPart& part, Axis& axis) {
    if (axis.reference.empty()) return objectFault(part.name, "AXIS_PTS_REF is missing");
    auto built = buildObject(part.description, axis.reference, part.referencesLeft - 1);
    if (!built || built.value().kind != ObjectKind::axisPoints) {
        const bool found = built || part.description.findAxisPoints(axis.reference) != nullptr ||
                           belongsToInstance(part.description, axis.reference);
        return objectFault(part.name, built   ? inQuotes(axis.reference) + " is no AXIS_PTS"
                                      : found ? built.error().text()
                                              : "AXIS_PTS " + inQuotes(axis.reference) + " not found");
    }
    Object shared = std::move(built).value();
    const Axis& own = shared.axes.front();
    if ((own.kind == AxisKind::rescale) != (axis.kind == AxisKind::rescale)) {
        return objectFault(part.name, "AXIS_PTS " + inQuotes(axis.reference) + " does not fit a " +
                                          std::string(axisKindName(axis.kind)));
    }
    auto point = buildPoint(part, shared.first.coding.dataType, shared.first.coding.byteOrder);
    if (!point) return point.error();
    axis.point = std::move(point).value();
    axis.difference = own.difference;
    axis.monotony = own.monotony;
    axis.readOnly = own.readOnly;
    part.object.assumptions.add(shared.assumptions);
    if (axis.kind == AxisKind::rescale) {
        part.object.assumptions.add(Assumption::rescaleCount);
    } else {
        axis.maxPoints = own.maxPoints;
        if (shared.record.find(Field::axisPoints)->decreasing)
            part.object.assumptions.add(Assumption::decreasingPairs);
    }
    axis.shared = std::make_shared<const Object>(std::move(shared));
    return {};
}

Result<void> buildCurveAxis(const AxisPart& part, Axis& axis) {
    if (axis.reference.empty()) return objectFault(part.name, "CURVE_AXIS_REF is missing");
    auto curve = buildObject(part.description, axis.reference, part.referencesLeft - 1);
    if (!curve) return objectFault(part.name, curve.error().text());
    if (curve.value().kind != ObjectKind::characteristic || curve.value().type != CharacteristicType::curve)
        return objectFault(part.name,
                           "CURVE_AXIS_REF names " + inQuotes(axis.reference) + ", which is no CURVE");
    axis.shared = std::make_shared<const Object>(std::move(curve).value());
    return buildComputed(part, axis);
}

Result<Axis> buildAxis(const AxisPart& part) {
    Axis axis;
    axis.kind = part.source.kind;
    axis.monotony = part.source.monotony;
    axis.readOnly = part.source.readOnly;
    if (part.source.inputQuantity != "NO_INPUT_QUANTITY") axis.inputQuantity = part.source.inputQuantity;
    axis.reference = part.source.reference;
    axis.maxPoints = part.source.maxAxisPoints;
    axis.fixed = part.source.fixed;
    Result<void> built;
    switch (axis.kind) {
        case AxisKind::standard:
            built = buildStandard(part, axis);
            break;
        case AxisKind::fixed:
            built = buildComputed(part, axis);
            break;
        case AxisKind::common:
        case AxisKind::rescale:
            built = buildShared(part, axis);
            break;
        case AxisKind::curve:
            built = buildCurveAxis(part, axis);
            break;
    }
    if (!built) return built.error();
    if (axis.maxPoints == 0) return objectFault(part.name, "may have no points at all");
    return axis;
}

/// Borders of all types: the layout's, else those of all layouts, else the types' sizes.
Alignments bordersOf(const RecordLayout& layout, const ObjectDefaults& defaults) {
    constexpr Alignments kSizes = {1, 2, 4, 8, 2, 4, 8};
    Alignments borders = kSizes;
    for (std::size_t i = 0; i < borders.size(); ++i) {
        if (defaults.alignments[i] != 0) borders[i] = defaults.alignments[i];
        if (layout.alignments[i] != 0) borders[i] = layout.alignments[i];
    }
    return borders;
}

void addRecordAssumptions(const RecordLayout& layout, const ObjectDefaults& defaults, const Record& record,
                          Assumptions& assumptions) {
    if (layout.staticOffsets && !layout.staticRecord) assumptions.add(Assumption::staticOffsets);
    for (std::size_t i = 0; i < layout.entries.size(); ++i) {
        const RecordLayout::Entry& entry = layout.entries[i];
        const std::size_t kind = alignmentClass(entry.dataType);
        const bool isArray = entry.field <= Field::axisRescale;
        const std::size_t size = value::dataTypeSize(entry.dataType);
        if (isArray && record.borders[kind] > size) assumptions.add(Assumption::borderInArray);
        if (isPointer(entry.addressType) && layout.entries.size() > 1)
            assumptions.add(Assumption::pointerBorder);
        if (isPointer(entry.addressType) && pointerSize(entry.addressType) < 4 &&
            record.nearPointerOffset != 0) {
            assumptions.add(Assumption::nearPointer);
        }
        const bool alternates =
            entry.indexMode == IndexMode::alternateWithX || entry.indexMode == IndexMode::alternateWithY;
        if (alternates) assumptions.add(Assumption::alternateBorder);
        if (i == 0) continue;
        if (size > 1 && layout.alignments[kind] == 0 && defaults.alignments[kind] == 0)
            assumptions.add(Assumption::naturalBorder);
        if (entry.position > layout.entries[i - 1].position + 1) assumptions.add(Assumption::positionGap);
    }
}

}  // namespace

Result<std::vector<Axis>> buildAxes(const Description& description, const Characteristic& characteristic,
                                    Object& object, std::size_t referencesLeft) {
    constexpr std::array<std::string_view, kMostAxes> kSuffixes = {".x", ".y", ".z", ".4", ".5"};
    std::vector<Axis> axes;
    const std::size_t first = characteristic.maps.count > 0 ? 2 : 0;  // the maps have X and Y
    for (std::size_t i = 0; i < characteristic.axes.size(); ++i) {
        const std::size_t number = first + i;
        auto axis = buildAxis({description, characteristic.axes[i], object,
                               object.name + std::string(kSuffixes[number]), number, referencesLeft});
        if (!axis) return axis.error();
        axes.push_back(std::move(axis).value());
    }
    return axes;
}

Result<Record> buildRecord(const Description& description, std::string_view name, Object& object) {
    const RecordLayout* layout = description.findRecordLayout(name);
    if (layout == nullptr && !description.defaults.layout.empty()) {
        layout = description.findRecordLayout(description.defaults.layout);
        object.assumptions.add(Assumption::defaultLayout);
    }
    if (layout == nullptr)
        return objectFault(object.name, "RECORD_LAYOUT " + inQuotes(name) + " without FNC_VALUES");
    Record record;
    record.layout = layout->name;
    record.entries = layout->entries;
    record.fixedCounts = layout->fixedCounts;
    record.borders = bordersOf(*layout, description.defaults);
    record.staticRecord = layout->staticRecord;
    record.staticOffsets = layout->staticOffsets;
    record.nearPointerOffset = description.defaults.calibrationOffset;
    addRecordAssumptions(*layout, description.defaults, record, object.assumptions);
    return record;
}

const RecordLayout::Entry* Record::find(Field field, std::size_t axis) const {
    for (const RecordLayout::Entry& entry : entries)
        if (entry.field == field && entry.axis == axis) return &entry;
    return nullptr;
}

}  // namespace lm::a2l
