#include "a2l/description.h"

#include "a2l/description_store.h"

namespace lm::a2l {

bool isPointerType(std::string_view addressType) {
    return addressType == "PBYTE" || addressType == "PWORD" || addressType == "PLONG" ||
           addressType == "PLONGLONG";
}

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

const AxisPoints* Description::findAxisPoints(std::string_view name) const {
    return store_->axisPoints.lookUp(axisPoints, name);
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

std::span<const std::uint16_t> Description::events(const Measurement& measurement) const {
    return std::span(store_->events).subspan(measurement.firstEvent, measurement.eventCount);
}

}  // namespace lm::a2l
