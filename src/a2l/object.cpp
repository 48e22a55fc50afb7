#include "a2l/object.h"

#include <bit>
#include <cassert>
#include <functional>
#include <memory>
#include <numeric>
#include <utility>

#include "a2l/conversion_builder.h"
#include "a2l/object_error.h"
#include "a2l/similar_names.h"

namespace lm::a2l {
namespace {

constexpr const char* kPointer = "at its address lies a pointer to the value, which is not supported yet";

Error fault(std::string_view name, const std::string& what) {
    return {ErrorCode::notFound, std::string(name) + ": " + what};
}

/// The mask and the shift that read and write like a BIT_OPERATION: (raw & mask), then its shift instead of
/// the mask's own. Bits that it shifts out below are none of the value.
Result<void> applyBitOperation(const BitField& bits, std::string_view name, value::RawCoding& coding) {
    if (!bits.operation || value::isFloat(coding.dataType)) return {};
    constexpr int kAllBits = 64;
    const std::uint64_t whole = ~std::uint64_t{0} >> (64U - 8U * coding.size());
    const int right = int{bits.rightShift} - int{bits.leftShift};
    std::uint64_t mask = bits.mask == 0 ? whole : bits.mask & whole;
    if (right > 0) mask = right < kAllBits ? mask >> right << right : 0;
    if (mask == 0) return fault(name, "BIT_OPERATION leaves no bit of the value");
    const int left = std::countr_zero(mask) - right;
    if (std::bit_width(mask) - right > kAllBits)
        return fault(name, "BIT_OPERATION shifts the value beyond 64 bits");
    coding.bitMask = mask;
    coding.leftShift = static_cast<std::uint8_t>(left);
    coding.signExtend = bits.signExtend && !value::isSigned(coding.dataType);
    return {};
}

Result<value::Conversion> conversionOf(const Description& description, const auto& source) {
    auto conversion = buildConversion(description, source.conversion);
    if (!conversion) return fault(source.name, conversion.error().text());
    if (!source.format.empty()) conversion.value().setFormat(std::string(source.format));
    if (source.physUnit) conversion.value().setUnit(std::string(*source.physUnit));
    return conversion;
}

/// What measurements and characteristics have in common.
Result<Object> findCommon(const Description& description, const auto& source, value::DataType type,
                          xcp::Address address) {
    Object object;
    object.name = source.name;
    object.description = source.longIdentifier;
    object.displayName = source.displayIdentifier;
    value::Element& element = object.first;
    element.name = source.name;
    element.address = address;
    element.coding.byteOrder =
        source.byteOrder.value_or(description.byteOrder.value_or(ByteOrder::littleEndian));
    element.coding.dataType = type;
    element.coding.bitMask = source.bits.mask;
    element.emptyMask = source.bits.emptyMask && !value::isFloat(type);
    element.lowerLimit = source.lowerLimit;
    element.upperLimit = source.upperLimit;
    auto conversion = conversionOf(description, source);
    if (!conversion) return conversion.error();
    element.conversion = std::make_shared<const value::Conversion>(std::move(conversion).value());
    if (auto bits = applyBitOperation(source.bits, source.name, element.coding); !bits) return bits.error();
    return object;
}

Result<Object> measurementObject(const Description& description, const Measurement& measurement) {
    if (!measurement.hasAddress) return fault(measurement.name, "measurement has no ECU_ADDRESS");
    if (measurement.elementCount > 1) return fault(measurement.name, "arrays are not supported yet");
    if (measurement.isPointer) return fault(measurement.name, kPointer);
    auto object = findCommon(description, measurement, measurement.dataType,
                             {measurement.ecuAddress, measurement.addressExtension});
    if (!object) return object;
    object.value().kind = ObjectKind::measurement;
    object.value().writable = measurement.readWrite && !measurement.readOnly;
    const auto events = description.events(measurement);
    object.value().events.assign(events.begin(), events.end());
    return object;
}

Result<Object> characteristicObject(const Description& description, const Characteristic& characteristic) {
    if (characteristic.type != CharacteristicType::value)
        return fault(characteristic.name, "only scalar (VALUE) parameters are supported yet");
    if (characteristic.isVirtual)
        return fault(characteristic.name, "virtual characteristic has no ECU address");
    const RecordLayout* layout = description.findRecordLayout(characteristic.deposit);
    if (layout == nullptr || !layout->fncValues) {
        return fault(characteristic.name,
                     "RECORD_LAYOUT '" + std::string(characteristic.deposit) + "' without FNC_VALUES");
    }
    if (isPointerType(layout->fncValues->addressType)) return fault(characteristic.name, kPointer);
    auto object = findCommon(description, characteristic, layout->fncValues->dataType,
                             {characteristic.address, characteristic.addressExtension});
    if (!object) return object;
    object.value().kind = ObjectKind::characteristic;
    object.value().writable = !characteristic.readOnly;
    return object;
}

}  // namespace

std::size_t Object::elementCount() const {
    return std::accumulate(dimensions.begin(), dimensions.end(), std::size_t{1}, std::multiplies());
}

value::Element Object::element([[maybe_unused]] std::size_t index) const {
    assert(index == 0);  // of a scalar, and nothing else is found
    return first;
}

Result<Object> findObject(const Description& description, std::string_view name) {
    if (const Measurement* measurement = description.findMeasurement(name))
        return measurementObject(description, *measurement);
    if (const Characteristic* characteristic = description.findCharacteristic(name))
        return characteristicObject(description, *characteristic);
    Error unknown{ErrorCode::notFound,
                  "'" + std::string(name) + "' is neither a MEASUREMENT nor a CHARACTERISTIC"};
    unknown.hint = unknownNameHint(description, name);
    return unknown;
}

Object resolve(const Description& description, std::string_view name) {
    auto object = findObject(description, name);
    if (!object) throw ObjectError(object.error().text());
    return std::move(object).value();
}

Result<void> encodePhysical(const Object& object, double physical, std::span<std::uint8_t> buffer) {
    return value::encodePhysical(object.element(), physical, buffer);
}

}  // namespace lm::a2l
