#include "a2l/object.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <utility>

#include "a2l/conversion_builder.h"
#include "core/text.h"

namespace lm::a2l {
namespace {

constexpr std::size_t kLongestLimitMessage = 159;
constexpr const char* kPointer = "at its address lies a pointer to the value, which is not supported yet";

// --- Resolution

ObjectError objectError(std::string_view name, const std::string& what) {
    return ObjectError(std::string(name) + ": " + what);
}

/// The mask and the shift that read and write like a BIT_OPERATION: (raw & mask), then its shift instead of
/// the mask's own. Bits that it shifts out below are none of the value.
void applyBitOperation(const BitField& bits, std::string_view name, value::RawCoding& coding) {
    if (!bits.operation || value::isFloat(coding.dataType)) return;
    constexpr int kAllBits = 64;
    const std::uint64_t whole = ~std::uint64_t{0} >> (64U - 8U * coding.size());
    const int right = int{bits.rightShift} - int{bits.leftShift};
    std::uint64_t mask = bits.mask == 0 ? whole : bits.mask & whole;
    if (right > 0) mask = right < kAllBits ? mask >> right << right : 0;
    if (mask == 0) throw objectError(name, "BIT_OPERATION leaves no bit of the value");
    const int left = std::countr_zero(mask) - right;
    if (std::bit_width(mask) - right > kAllBits)
        throw objectError(name, "BIT_OPERATION shifts the value beyond 64 bits");
    coding.bitMask = mask;
    coding.leftShift = static_cast<std::uint8_t>(left);
    coding.signExtend = bits.signExtend && !value::isSigned(coding.dataType);
}

/// What measurements and characteristics have in common.
template <typename Source>
ResolvedObject resolveCommon(const Description& description, const Source& source, value::DataType type) {
    Result<value::Conversion> conversion = buildConversion(description, source.conversion);
    if (!conversion) throw objectError(source.name, conversion.error().text());
    ResolvedObject object;
    object.name = source.name;
    object.description = source.longIdentifier;
    object.displayName = source.displayIdentifier;
    object.coding.byteOrder =
        source.byteOrder.value_or(description.byteOrder.value_or(ByteOrder::littleEndian));
    object.coding.dataType = type;
    object.coding.bitMask = source.bits.mask;
    object.emptyMask = source.bits.emptyMask && !value::isFloat(type);
    applyBitOperation(source.bits, source.name, object.coding);
    object.conversion = std::move(conversion).value();
    if (!source.format.empty()) object.conversion.setFormat(std::string(source.format));
    if (source.physUnit) object.conversion.setUnit(std::string(*source.physUnit));
    object.lowerLimit = source.lowerLimit;
    object.upperLimit = source.upperLimit;
    return object;
}

ResolvedObject resolveMeasurement(const Description& description, const Measurement& measurement) {
    if (!measurement.hasAddress) throw objectError(measurement.name, "measurement has no ECU_ADDRESS");
    if (measurement.elementCount > 1) throw objectError(measurement.name, "arrays are not supported yet");
    if (measurement.isPointer) throw objectError(measurement.name, kPointer);
    ResolvedObject object = resolveCommon(description, measurement, measurement.dataType);
    object.kind = ObjectKind::measurement;
    object.address = {measurement.ecuAddress, measurement.addressExtension};
    object.writable = measurement.readWrite && !measurement.readOnly;
    const auto events = description.events(measurement);
    object.events.assign(events.begin(), events.end());
    return object;
}

ResolvedObject resolveCharacteristic(const Description& description, const Characteristic& characteristic) {
    if (characteristic.type != CharacteristicType::value)
        throw objectError(characteristic.name, "only scalar (VALUE) parameters are supported yet");
    if (characteristic.isVirtual)
        throw objectError(characteristic.name, "virtual characteristic has no ECU address");
    const RecordLayout* layout = description.findRecordLayout(characteristic.deposit);
    if (layout == nullptr || !layout->fncValues) {
        throw objectError(characteristic.name,
                          "RECORD_LAYOUT '" + std::string(characteristic.deposit) + "' without FNC_VALUES");
    }
    if (isPointerType(layout->fncValues->addressType)) throw objectError(characteristic.name, kPointer);
    ResolvedObject object = resolveCommon(description, characteristic, layout->fncValues->dataType);
    object.kind = ObjectKind::characteristic;
    object.address = {characteristic.address, characteristic.addressExtension};
    object.writable = !characteristic.readOnly;
    return object;
}

// --- Values

Error objectFault(const ResolvedObject& object, const std::string& what) {
    return {ErrorCode::invalidArgument, object.name + ": " + what};
}

Error withName(const ResolvedObject& object, Error error) {
    error.message = object.name + ": " + error.text();
    return error;
}

Result<void> checkLimits(const ResolvedObject& object, long double physical) {
    if (std::isinf(static_cast<double>(physical))) return objectFault(object, "value is not finite");
    const double lower = object.lowerLimit;
    const double upper = object.upperLimit;
    double tolerance = 1;
    for (const double limit : {lower, upper})
        if (std::isfinite(limit)) tolerance = std::max(tolerance, std::fabs(limit));
    tolerance *= 1e-9;
    const bool aboveLower = std::isfinite(lower) ? physical >= lower - tolerance : !std::isnan(physical);
    const bool belowUpper = std::isfinite(upper) ? physical <= upper + tolerance : !std::isnan(physical);
    if (aboveLower && belowUpper) return {};
    Error error = objectFault(object, formatGeneral(static_cast<double>(physical)) + " outside the limits [" +
                                          formatGeneral(lower) + ", " + formatGeneral(upper) + "]");
    if (error.message.size() > kLongestLimitMessage) error.message.resize(kLongestLimitMessage);
    return error;
}

}  // namespace

ResolvedObject resolve(const Description& description, std::string_view name) {
    if (const Measurement* measurement = description.findMeasurement(name))
        return resolveMeasurement(description, *measurement);
    if (const Characteristic* characteristic = description.findCharacteristic(name))
        return resolveCharacteristic(description, *characteristic);
    throw ObjectError("'" + std::string(name) + "' is neither a MEASUREMENT nor a CHARACTERISTIC");
}

Result<void> encodePhysical(const ResolvedObject& object, long double physical,
                            std::span<std::uint8_t> buffer) {
    if (auto checked = checkLimits(object, physical); !checked) return checked;
    if (object.keepsIntegers()) {
        const long double raw = std::ldexp(physical, -*object.conversion.binaryExponent());
        if (auto encoded = value::encodeRaw(raw, object.coding, buffer); !encoded)
            return withName(object, encoded.error());
        return {};
    }
    const Result<double> raw = object.conversion.toRaw(static_cast<double>(physical));
    if (!raw) return withName(object, raw.error());
    // Beyond its type's range a float would silently become infinite, and an inverse formula may yield NaN.
    Result<void> encoded = value::requireFinite(raw.value(), object.coding.dataType);
    if (encoded) encoded = value::encodeRaw(raw.value(), object.coding, buffer);
    if (!encoded) return withName(object, encoded.error());
    return encoded;
}

}  // namespace lm::a2l
