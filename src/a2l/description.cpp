#include "a2l/description.h"

#include "a2l/description_store.h"

namespace lm::a2l {
namespace {

// A NameNumber: which kind of record in the upper bits, its number in the lower ones.
enum class NumberedKind : std::uint8_t { measurement, characteristic, axisPoints, blob, instance, other };
constexpr unsigned kKindShift = 29;
constexpr NameNumber kRecordBits = (NameNumber{1} << kKindShift) - 1;

NameNumber numbered(NumberedKind kind, std::size_t record) {
    return static_cast<NameNumber>(kind) << kKindShift | static_cast<NameNumber>(record);
}

}  // namespace

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

std::string_view Description::typeName(const Instance& instance) const {
    return store_->instanceTypes[instance.type];
}

const InstanceDetails& Description::details(const Instance& instance) const {
    return store_->instanceDetails[instance.details];
}

std::span<const Overwrite> Description::overwrites(const Instance& instance) const {
    const InstanceDetails& own = details(instance);
    return std::span(store_->overwrites).subspan(own.firstOverwrite, own.overwriteCount);
}

const Folder* Description::findGroup(std::string_view name) const {
    return store_->groups.lookUp(groups, name);
}

const Folder* Description::findFunction(std::string_view name) const {
    return store_->functions.lookUp(functions, name);
}

const Dependency* Description::findDependency(std::string_view name) const {
    for (;;) {
        const Dependency* found = store_->dependencies.lookUp(dependencies, name);
        // An element of a leaf bears its name and an index.
        const bool isElement = found == nullptr && !typeDependencies.empty() && name.ends_with(']');
        if (!isElement) return found;
        const std::size_t index = name.rfind('[');
        if (index == std::string_view::npos) return nullptr;
        name = name.substr(0, index);
    }
}

const Dependency* Description::findTypeDependency(std::string_view name) const {
    return store_->typeDependencies.lookUp(typeDependencies, name);
}

std::span<const std::string_view> Description::sources(const Dependency& dependency) const {
    return std::span(store_->sources).subspan(dependency.firstSource, dependency.sourceCount);
}

std::span<const FolderList> Description::lists(const Folder& folder) const {
    return std::span(store_->lists).subspan(folder.firstList, folder.listCount);
}

std::span<const NameNumber> Description::numbers(const FolderList& list) const {
    return std::span(store_->numbers).subspan(list.first, list.count);
}

std::optional<NameNumber> Description::numberOf(std::string_view name) const {
    const auto in = [](NumberedKind kind, const auto& records, const auto* found) {
        return numbered(kind, static_cast<std::size_t>(found - records.data()));
    };
    if (const auto* found = findMeasurement(name)) return in(NumberedKind::measurement, measurements, found);
    if (const auto* found = findCharacteristic(name))
        return in(NumberedKind::characteristic, characteristics, found);
    if (const auto* found = findAxisPoints(name)) return in(NumberedKind::axisPoints, axisPoints, found);
    if (const auto* found = findBlob(name)) return in(NumberedKind::blob, blobs, found);
    if (const auto* found = findInstance(name)) return in(NumberedKind::instance, instances, found);
    const OtherName* other = store_->otherNames.lookUp(store_->others, name);
    if (other == nullptr) return {};
    return in(NumberedKind::other, store_->others, other);
}

std::string_view Description::nameOf(NameNumber number) const {
    const std::size_t record = number & kRecordBits;
    switch (static_cast<NumberedKind>(number >> kKindShift)) {
        case NumberedKind::measurement:
            return measurements[record].name;
        case NumberedKind::characteristic:
            return characteristics[record].name;
        case NumberedKind::axisPoints:
            return axisPoints[record].name;
        case NumberedKind::blob:
            return blobs[record].name;
        case NumberedKind::instance:
            return instances[record].name;
        case NumberedKind::other:
            return store_->others[record].name;
    }
    return {};
}

std::span<const std::uint16_t> Description::events(const Instance& instance) const {
    const InstanceDetails& own = details(instance);
    return std::span(store_->events).subspan(own.firstEvent, own.eventCount);
}

std::span<const std::uint16_t> Description::events(const Measurement& measurement) const {
    return std::span(store_->events).subspan(measurement.firstEvent, measurement.eventCount);
}

}  // namespace lm::a2l
