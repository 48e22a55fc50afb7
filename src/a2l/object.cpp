#include "a2l/object.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "core/text.h"

namespace lm::a2l {
namespace {

constexpr std::size_t kLongestLimitMessage = 159;

// --- Resolution

ObjectError objectError(std::string_view name, const std::string& what) {
    return ObjectError(std::string(name) + ": " + what);
}

/// What measurements and characteristics have in common.
template <typename Source>
ResolvedObject resolveCommon(const Description& description, const Source& source) {
    Result<Conversion> conversion = Conversion::build(description, source.conversion);
    if (!conversion) throw objectError(source.name, conversion.error().text());
    ResolvedObject object;
    object.name = source.name;
    object.description = source.longIdentifier;
    object.displayName = source.displayIdentifier;
    object.coding.byteOrder =
        source.byteOrder.value_or(description.byteOrder.value_or(ByteOrder::littleEndian));
    object.coding.bitMask = source.bits.mask;
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
    ResolvedObject object = resolveCommon(description, measurement);
    object.kind = ObjectKind::measurement;
    object.address = {measurement.ecuAddress, measurement.addressExtension};
    object.coding.dataType = measurement.dataType;
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
    ResolvedObject object = resolveCommon(description, characteristic);
    object.kind = ObjectKind::characteristic;
    object.address = {characteristic.address, characteristic.addressExtension};
    object.coding.dataType = layout->fncValues->dataType;
    object.writable = !characteristic.readOnly;
    return object;
}

// --- Numbers typed by a user

/// What the text is as a number.
struct TypedNumber {
    std::optional<double> value;  ///< none: not a number
    bool exact = true;            ///< false: an integer between two doubles
};

TypedNumber parseHexadecimal(std::string_view digits) {
    if (digits.empty()) return {};
    double value = 0;
    bool exact = true;
    for (const char c : digits) {
        const std::size_t found = std::string_view("0123456789abcdefABCDEF").find(c);
        if (found == std::string_view::npos) return {};
        const auto digit = static_cast<double>(found < 16 ? found : found - 6);
        const double shifted = value * 16;
        value = shifted + digit;
        exact = exact && value - shifted == digit;
    }
    return {value, exact};
}

TypedNumber parseDecimalInteger(std::string_view digits) {
    const double value = parseDouble(digits).value_or(0);
    const std::string_view significant =
        digits.substr(std::min(digits.find_first_not_of('0'), digits.size() - 1));
    return {value, formatFixed(value, 0) == significant};
}

TypedNumber parseTyped(std::string_view text) {
    std::string_view rest = text;
    const bool negative = !rest.empty() && rest[0] == '-';
    if (!rest.empty() && (rest[0] == '-' || rest[0] == '+')) rest.remove_prefix(1);
    const bool hexadecimal = rest.size() > 1 && rest[0] == '0' && (rest[1] == 'x' || rest[1] == 'X');
    const bool integer = !rest.empty() && rest.find_first_not_of("0123456789") == std::string_view::npos;
    if (!hexadecimal && !integer) return {parseDouble(text)};
    TypedNumber number = hexadecimal ? parseHexadecimal(rest.substr(2)) : parseDecimalInteger(rest);
    if (negative && number.value) number.value = -*number.value;
    return number;
}

Error objectFault(const ResolvedObject& object, const std::string& what) {
    return {ErrorCode::invalidArgument, object.name + ": " + what};
}

Error withName(const ResolvedObject& object, Error error) {
    error.message = object.name + ": " + error.text();
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

Result<void> encodePhysical(const ResolvedObject& object, double physical, std::span<std::uint8_t> buffer) {
    if (std::isinf(physical)) return objectFault(object, "value is not finite");
    const double lower = object.lowerLimit;
    const double upper = object.upperLimit;
    const double tolerance = 1e-9 * std::max({1.0, std::fabs(lower), std::fabs(upper)});
    if (!(physical >= lower - tolerance && physical <= upper + tolerance)) {
        Error error = objectFault(object, formatGeneral(physical) + " outside the limits [" +
                                              formatGeneral(lower) + ", " + formatGeneral(upper) + "]");
        if (error.message.size() > kLongestLimitMessage) error.message.resize(kLongestLimitMessage);
        return error;
    }
    const Result<double> raw = object.conversion.toRaw(physical);
    if (!raw) return withName(object, raw.error());
    // Beyond its type's range a float would silently become infinite, and an inverse formula may yield NaN.
    Result<void> encoded = requireFinite(raw.value(), object.coding.dataType);
    if (encoded) encoded = encodeRaw(raw.value(), object.coding, buffer);
    if (!encoded) return withName(object, encoded.error());
    return encoded;
}

Result<void> encodeText(const ResolvedObject& object, std::string_view text, std::span<std::uint8_t> buffer) {
    std::string notANumber = "'" + std::string(text) + "' is not a number";
    if (object.conversion.isVerbal()) {
        const Result<double> raw = object.conversion.rawFromText(text);
        if (raw) return encodePhysical(object, raw.value(), buffer);
        notANumber = raw.error().message;
    }
    const TypedNumber number = parseTyped(text);
    if (!number.value) return objectFault(object, notANumber);
    if (!number.exact)
        return objectFault(object, "'" + std::string(text) + "' cannot be held exactly as a 64-bit float");
    return encodePhysical(object, *number.value, buffer);
}

}  // namespace lm::a2l
