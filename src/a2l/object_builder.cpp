#include "a2l/object_builder.h"

#include <algorithm>
#include <bit>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <utility>

#include "a2l/conversion_builder.h"

namespace lm::a2l {
namespace {

using Field = RecordLayout::Field;

/// The mask and the shift that read and write like a BIT_OPERATION: (raw & mask), then its shift instead of
/// the mask's own. Bits that it shifts out below are none of the value.
Result<void> applyBitOperation(const BitField& bits, std::string_view name, value::RawCoding& coding) {
    if (!bits.operation || value::isFloat(coding.dataType)) return {};
    constexpr int kAllBits = 64;
    const std::uint64_t whole = ~std::uint64_t{0} >> (64U - 8U * coding.size());
    const int right = int{bits.rightShift} - int{bits.leftShift};
    std::uint64_t mask = bits.mask == 0 ? whole : bits.mask & whole;
    if (right > 0) mask = right < kAllBits ? mask >> right << right : 0;
    if (mask == 0) return objectFault(name, "BIT_OPERATION leaves no bit of the value");
    const int left = std::countr_zero(mask) - right;
    if (std::bit_width(mask) - right > kAllBits)
        return objectFault(name, "BIT_OPERATION shifts the value beyond 64 bits");
    coding.bitMask = mask;
    coding.leftShift = static_cast<std::uint8_t>(left);
    coding.signExtend = bits.signExtend && !value::isSigned(coding.dataType);
    return {};
}

/// What all kinds have in common.
Result<Object> buildCommon(const Description& description, const auto& source, value::DataType type,
                           xcp::Address address) {
    Object object;
    object.name = source.name;
    object.description = source.longIdentifier;
    object.displayName = source.displayIdentifier;
    value::Element& element = object.first;
    element.name = source.name;
    element.address = address;
    auto order = byteOrderOf(description, source, source.name, object.assumptions);
    if (!order) return order.error();
    element.coding.byteOrder = order.value();
    element.coding.dataType = type;
    element.coding.bitMask = source.bits.mask;
    element.emptyMask = source.bits.emptyMask && !value::isFloat(type);
    element.lowerLimit = source.lowerLimit;
    element.upperLimit = source.upperLimit;
    if constexpr (requires { source.extendedLimits; }) element.extendedLimits = source.extendedLimits;
    auto conversion =
        buildConversionOf(description, source.name, source.conversion, source.format, source.physUnit);
    if (!conversion) return conversion.error();
    element.conversion = std::make_shared<const value::Conversion>(std::move(conversion).value());
    if (auto bits = applyBitOperation(source.bits, source.name, element.coding); !bits) return bits.error();
    return object;
}

/// MATRIX_DIM as it is meant: up to 1.61 it has three numbers, of which trailing ones are unused; 0 is read
/// as 1.
std::vector<std::uint32_t> usedDimensions(const Description& description, PoolRange range) {
    const auto written = description.dimensions(range);
    std::vector<std::uint32_t> dimensions;
    for (const std::uint32_t number : written)
        dimensions.push_back(std::max(number, std::uint32_t{1}));
    const bool allCount = description.asap2Version && *description.asap2Version >= std::pair{1.0, 70.0};
    while (!allCount && dimensions.size() > 1 && dimensions.back() == 1)
        dimensions.pop_back();
    return dimensions;
}

void addDimensionAssumptions(Object& object, bool columnDir) {
    if (object.dimensions.size() > 1) object.assumptions.add(Assumption::elementOrder);
    if (object.dimensions.size() > 2 && columnDir) object.assumptions.add(Assumption::columnDirection);
}

std::size_t axesOf(const Characteristic& characteristic) {
    switch (characteristic.type) {
        case CharacteristicType::curve:
            return 1;
        case CharacteristicType::map:
            return 2;
        case CharacteristicType::cuboid:
            return characteristic.maps.count > 0 ? 1 : 3;
        case CharacteristicType::cube4:
            return 4;
        case CharacteristicType::cube5:
            return 5;
        default:
            return 0;
    }
}

/// The maps of a MAP_LIST, which give X, Y and the values, while the one axis of the object is Z.
Result<Object> withMaps(const Description& description, const Characteristic& characteristic, Object object,
                        std::size_t referencesLeft) {
    for (const std::string_view name : description.maps(characteristic.maps)) {
        auto map = buildObject(description, name, referencesLeft - 1);
        if (!map || map.value().type != CharacteristicType::map || !map.value().maps.empty())
            return objectFault(object.name, "MAP_LIST names '" + std::string(name) + "', which is no MAP" +
                                                (map ? "" : ": " + map.error().text()));
        object.assumptions.add(map.value().assumptions);
        object.writable = object.writable && map.value().writable;
        object.maps.push_back(std::make_shared<const Object>(std::move(map).value()));
    }
    const Object& first = *object.maps.front();
    Axis z = std::move(object.axes.front());
    object.axes = {first.axes[0], first.axes[1], std::move(z)};
    object.dimensions = {first.dimensions[0], first.dimensions[1],
                         static_cast<std::uint32_t>(object.maps.size())};
    return object;
}

/// Dimensions and axes of what is not a single value.
Result<Object> withParts(const Description& description, const Characteristic& characteristic, Object object,
                         std::size_t referencesLeft) {
    const std::size_t count = axesOf(characteristic);
    if (characteristic.axes.size() != count) {
        return objectFault(object.name, "needs " + std::to_string(count) + " AXIS_DESCR, has " +
                                            std::to_string(characteristic.axes.size()));
    }
    if (count > 0) {
        auto axes = buildAxes(description, characteristic, object, referencesLeft);
        if (!axes) return axes.error();
        object.axes = std::move(axes).value();
        for (const Axis& axis : object.axes)
            object.dimensions.push_back(axis.maxPoints);
        if (characteristic.maps.count > 0)
            return withMaps(description, characteristic, std::move(object), referencesLeft);
        if (object.record.staticRecord && count > 1) object.assumptions.add(Assumption::staticStride);
        return object;
    }
    if (characteristic.type == CharacteristicType::value) return object;
    object.dimensions = usedDimensions(description, characteristic.dimensions);
    if (object.dimensions.empty()) object.dimensions = {1};
    if (object.isText()) {
        if (object.first.size() > 1 && characteristic.encoding <= TextEncoding::utf8) {
            return objectFault(object.name,
                               "ASCII of type " +
                                   std::string(value::dataTypeName(object.first.coding.dataType)) +
                                   " without ENCODING UTF16 or UTF32 is not supported");
        }
        object.dimensions = {characteristic.elementCount};
        object.assumptions.add(Assumption::textEnd);
        if (characteristic.encoding == TextEncoding::notGiven)
            object.assumptions.add(Assumption::textEncoding);
        if (characteristic.encoding > TextEncoding::utf8) object.assumptions.add(Assumption::textSize);
    }
    addDimensionAssumptions(object,
                            object.record.find(Field::functionValues)->indexMode == IndexMode::columnDir);
    return object;
}

}  // namespace

Error objectFault(std::string_view name, const std::string& reason) {
    return {ErrorCode::notFound, std::string(name) + ": " + reason};
}

Result<value::Conversion> buildConversionOf(const Description& description, std::string_view name,
                                            std::string_view method, std::string_view format,
                                            const std::optional<std::string_view>& unit) {
    auto conversion = buildConversion(description, method);
    if (!conversion) return objectFault(name, conversion.error().text());
    if (!format.empty()) conversion.value().setFormat(std::string(format));
    if (unit) conversion.value().setUnit(std::string(*unit));
    return conversion;
}

Result<Object> buildMeasurement(const Description& description, const Measurement& measurement) {
    if (!measurement.hasAddress) return objectFault(measurement.name, "measurement has no ECU_ADDRESS");
    auto built = buildCommon(description, measurement, measurement.dataType,
                             {measurement.ecuAddress, measurement.addressExtension});
    if (!built) return built;
    Object& object = built.value();
    object.kind = ObjectKind::measurement;
    object.writable = measurement.readWrite && !measurement.readOnly;
    const auto events = description.events(measurement);
    object.events.assign(events.begin(), events.end());
    if (!events.empty()) object.preferredEvent = events[measurement.preferredEvent];
    if (isPointer(measurement.addressType)) {
        object.hops.push_back({static_cast<std::uint8_t>(pointerSize(measurement.addressType)), 0});
        object.record.nearPointerOffset = description.defaults.calibrationOffset;
    }
    if (measurement.elementCount == 1) return built;
    object.type = CharacteristicType::valBlk;
    object.dimensions = usedDimensions(description, measurement.dimensions);
    object.columnDir = measurement.columnDir.value_or(false);
    addDimensionAssumptions(object, object.columnDir);
    if (object.dimensions.size() > 1 && !measurement.columnDir)
        object.assumptions.add(Assumption::layoutNotGiven);
    return built;
}

Result<Object> buildCharacteristic(const Description& description, const Characteristic& characteristic,
                                   std::size_t referencesLeft) {
    if (characteristic.isVirtual)
        return objectFault(characteristic.name, "virtual characteristic has no ECU address");
    if (referencesLeft == 0)
        return objectFault(characteristic.name, "axes refer to curves in a circle, or too deep");
    Object forRecord;
    forRecord.name = characteristic.name;
    auto record = buildRecord(description, characteristic.deposit, forRecord);
    if (!record) return record.error();
    // The values of a CUBOID with MAP_LIST are those of its maps.
    const RecordLayout::Entry* const values = record.value().find(Field::functionValues);
    if (values == nullptr && characteristic.maps.count == 0) {
        return objectFault(characteristic.name,
                           "RECORD_LAYOUT '" + std::string(characteristic.deposit) + "' without FNC_VALUES");
    }
    const auto type = values == nullptr ? value::DataType::ubyte : values->dataType;
    auto built = buildCommon(description, characteristic, type,
                             {characteristic.address, characteristic.addressExtension});
    if (!built) return built;
    Object& object = built.value();
    object.kind = ObjectKind::characteristic;
    object.type = characteristic.type;
    object.writable = !characteristic.readOnly;
    object.access = characteristic.access;
    object.guardRails = characteristic.guardRails;
    object.encoding = characteristic.encoding;
    object.assumptions.add(forRecord.assumptions);
    object.record = std::move(record).value();
    if (!object.record.entries.empty() &&
        characteristic.address % object.record.border(object.record.entries.front().dataType) != 0) {
        object.assumptions.add(Assumption::firstEntryUnmoved);
        if (object.record.entries.front().indexMode > IndexMode::columnDir)
            object.assumptions.add(Assumption::alternateUnmoved);
    }
    return withParts(description, characteristic, std::move(object), referencesLeft);
}

Result<Object> buildAxisPoints(const Description& description, const AxisPoints& points) {
    Object forRecord;
    forRecord.name = points.name;
    auto record = buildRecord(description, points.deposit, forRecord);
    if (!record) return record.error();
    const RecordLayout::Entry* stored = record.value().find(Field::axisPoints);
    const RecordLayout::Entry* const pairs = record.value().find(Field::axisRescale);
    if (stored == nullptr) stored = pairs;
    if (stored == nullptr) {
        return objectFault(points.name,
                           "RECORD_LAYOUT '" + std::string(points.deposit) + "' without AXIS_PTS_X");
    }
    auto built =
        buildCommon(description, points, stored->dataType, {points.address, points.addressExtension});
    if (!built) return built;
    Object& object = built.value();
    object.kind = ObjectKind::axisPoints;
    object.type = CharacteristicType::curve;
    object.writable = !points.readOnly;
    object.access = points.access;
    object.guardRails = points.guardRails;
    object.assumptions.add(forRecord.assumptions);
    object.record = std::move(record).value();
    Axis axis;
    axis.kind = stored == pairs ? AxisKind::rescale : AxisKind::standard;
    axis.monotony = stored == pairs ? Monotony::none : points.monotony;
    axis.difference =
        (points.pointDeposit == Deposit::notGiven ? description.defaults.deposit : points.pointDeposit) ==
            Deposit::difference &&
        stored != pairs;
    if (axis.difference) object.assumptions.add(Assumption::firstDifference);
    axis.readOnly = points.readOnly;
    if (points.inputQuantity != "NO_INPUT_QUANTITY") axis.inputQuantity = points.inputQuantity;
    axis.maxPoints = stored == pairs ? stored->maxPairs : points.maxAxisPoints;
    axis.point = object.first;
    object.dimensions = {stored == pairs ? 2 * axis.maxPoints : axis.maxPoints};
    object.axes.push_back(std::move(axis));
    return built;
}

Result<Object> buildObject(const Description& description, std::string_view name,
                           std::size_t referencesLeft) {
    if (const Measurement* measurement = description.findMeasurement(name))
        return buildMeasurement(description, *measurement);
    if (const Characteristic* characteristic = description.findCharacteristic(name))
        return buildCharacteristic(description, *characteristic, referencesLeft);
    if (const AxisPoints* points = description.findAxisPoints(name))
        return buildAxisPoints(description, *points);
    if (const Blob* blob = description.findBlob(name)) return buildBlob(*blob);
    if (belongsToInstance(description, name)) {
        const auto leaf = findLeaf(description, name);
        return leaf ? buildLeaf(description, leaf.value(), referencesLeft) : leaf.error();
    }
    return Error{ErrorCode::notFound,
                 "'" + std::string(name) + "' is neither a MEASUREMENT nor a CHARACTERISTIC"};
}

}  // namespace lm::a2l
