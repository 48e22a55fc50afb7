#include "a2l/description.h"

#include "a2l/description_store.h"

namespace lm::a2l {

Description::Description() : store_(std::make_unique<Store>()) {}
Description::~Description() = default;
Description::Description(Description&&) noexcept = default;
Description& Description::operator=(Description&&) noexcept = default;

const Measurement* Description::findMeasurement(std::string_view name) const {
    return store_->measurements.lookUp(measurements, name);
}

const Characteristic* Description::findCharacteristic(std::string_view name) const {
    return store_->characteristics.lookUp(characteristics, name);
}

const CompuMethod* Description::findCompuMethod(std::string_view name) const {
    return store_->compuMethods.lookUp(compuMethods, name);
}

const CompuTab* Description::findCompuTab(std::string_view name) const {
    return store_->compuTabs.lookUp(compuTabs, name);
}

const CompuVtab* Description::findCompuVtab(std::string_view name) const {
    return store_->compuVtabs.lookUp(compuVtabs, name);
}

const RecordLayout* Description::findRecordLayout(std::string_view name) const {
    return store_->recordLayouts.lookUp(recordLayouts, name);
}

const AxisPoints* Description::findAxisPoints(std::string_view name) const {
    return store_->axisPoints.lookUp(axisPoints, name);
}

std::span<const std::uint32_t> Description::dimensions(PoolRange range) const {
    return std::span(store_->dimensions).subspan(range.first, range.count);
}

std::span<const std::string_view> Description::maps(PoolRange range) const {
    return std::span(store_->maps).subspan(range.first, range.count);
}

const Blob* Description::findBlob(std::string_view name) const {
    return store_->blobs.lookUp(blobs, name);
}

const Instance* Description::findInstance(std::string_view name) const {
    return store_->instances.lookUp(instances, name);
}

const Measurement* Description::findMeasurementType(std::string_view name) const {
    return store_->measurementTypes.lookUp(measurementTypes, name);
}

const Characteristic* Description::findCharacteristicType(std::string_view name) const {
    return store_->characteristicTypes.lookUp(characteristicTypes, name);
}

const AxisPoints* Description::findAxisType(std::string_view name) const {
    return store_->axisTypes.lookUp(axisTypes, name);
}

const Blob* Description::findBlobType(std::string_view name) const {
    return store_->blobTypes.lookUp(blobTypes, name);
}

const StructureType* Description::findStructureType(std::string_view name) const {
    return store_->structureTypes.lookUp(structureTypes, name);
}

std::span<const std::uint32_t> Description::dimensions(const Extent& extent) const {
    return std::span(store_->dimensions).subspan(extent.first, extent.count);
}

std::span<const Overwrite> Description::overwrites(const Instance& instance) const {
    return std::span(store_->overwrites).subspan(instance.firstOverwrite, instance.overwriteCount);
}

std::span<const std::uint16_t> Description::events(const Measurement& measurement) const {
    return std::span(store_->events).subspan(measurement.firstEvent, measurement.eventCount);
}

}  // namespace lm::a2l
