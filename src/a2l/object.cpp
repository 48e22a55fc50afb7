#include "a2l/object.h"

#include <functional>
#include <numeric>
#include <string>
#include <utility>

#include "a2l/object_builder.h"
#include "a2l/object_error.h"
#include "a2l/placed_object.h"
#include "a2l/similar_names.h"

namespace lm::a2l {
namespace {

constexpr const char* kPointer = "at its address lies a pointer to the value, which is not supported yet";

/// Error: why a record is no scalar.
Result<void> checkScalar(const Measurement& measurement) {
    const auto refused = [&](const char* why) { return objectFault(measurement.name, why); };
    if (!measurement.hasAddress) return refused("measurement has no ECU_ADDRESS");
    if (measurement.elementCount > 1) return refused("arrays are not supported yet");
    if (isPointer(measurement.addressType)) return refused(kPointer);
    return {};
}

Result<void> checkScalar(const Description& description, const Characteristic& characteristic) {
    const auto refused = [&](const char* why) { return objectFault(characteristic.name, why); };
    if (characteristic.type != CharacteristicType::value)
        return refused("only scalar (VALUE) parameters are supported yet");
    if (characteristic.isVirtual) return refused("virtual characteristic has no ECU address");
    const RecordLayout* const layout = description.findRecordLayout(characteristic.deposit);
    const auto* const values =
        layout == nullptr ? nullptr : layout->find(RecordLayout::Field::functionValues);
    if (values != nullptr && isPointer(values->addressType)) return refused(kPointer);
    return {};
}

}  // namespace

std::size_t Object::elementCount() const {
    return std::accumulate(dimensions.begin(), dimensions.end(), std::size_t{1}, std::multiplies());
}

Result<Object> findObject(const Description& description, std::string_view name) {
    return buildObject(description, name);
}

void takeExtendedLimits(Object& object) {
    object.first.takesExtended = true;
    for (Axis& axis : object.axes)
        axis.point.takesExtended = true;
}

Result<Object> findScalar(const Description& description, std::string_view name, bool explains) {
    if (const Measurement* measurement = description.findMeasurement(name)) {
        if (auto scalar = checkScalar(*measurement); !scalar) return scalar.error();
        return buildMeasurement(description, *measurement);
    }
    const Characteristic* const characteristic = description.findCharacteristic(name);
    if (characteristic == nullptr) {
        Error unknown{ErrorCode::notFound,
                      "'" + std::string(name) + "' is neither a MEASUREMENT nor a CHARACTERISTIC"};
        if (explains) unknown.hint = unknownNameHint(description, name);
        return unknown;
    }
    if (auto scalar = checkScalar(description, *characteristic); !scalar) return scalar.error();
    auto object = buildCharacteristic(description, *characteristic);
    if (!object || object.value().record.entries.size() == 1) return object;
    // Other parts of its record may lie before the value.
    auto placed = place(object.value(), [&](xcp::Address, std::size_t) -> Result<std::vector<std::uint8_t>> {
        return objectFault(name, kPointer);
    });
    if (!placed) return placed.error();
    object.value().first = placed.value().element(0);
    return object;
}

Object resolve(const Description& description, std::string_view name) {
    auto object = findScalar(description, name);
    if (!object) throw ObjectError(object.error().text());
    return std::move(object).value();
}

Result<void> encodePhysical(const Object& object, double physical, std::span<std::uint8_t> buffer) {
    return value::encodePhysical(object.element(), physical, buffer);
}

}  // namespace lm::a2l
