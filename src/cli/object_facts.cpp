#include "cli/object_facts.h"

#include <string>
#include <utility>
#include <variant>

#include "cli/offline_a2l.h"

namespace lm::cli {
namespace {

/// What measurements and parameters have in common.
ObjectFacts commonFacts(const a2l::Description& description, const auto& object) {
    ObjectFacts facts;
    facts.name = object.name;
    facts.description = object.longIdentifier;
    facts.displayName = object.displayIdentifier;
    facts.addressExtension = object.addressExtension;
    facts.byteOrder = byteOrderOf(description, object.byteOrder);
    facts.limits = {object.lowerLimit, object.upperLimit};
    facts.bits = object.bits;
    facts.elementCount = object.elementCount;
    facts.format = object.format;
    facts.physUnit = object.physUnit;
    facts.conversion = object.conversion;
    return facts;
}

ObjectFacts factsOf(const a2l::Description& description, const a2l::Measurement& object) {
    ObjectFacts facts = commonFacts(description, object);
    facts.kind = "measurement";
    facts.type = value::dataTypeName(object.dataType);
    if (object.hasAddress) facts.address = object.ecuAddress;
    facts.events = description.events(object);
    facts.writable = object.readWrite && !object.readOnly;
    facts.isPointer = a2l::isPointer(object.addressType);
    return facts;
}

ObjectFacts factsOf(const a2l::Description& description, const a2l::Characteristic& object) {
    ObjectFacts facts = commonFacts(description, object);
    facts.kind = "parameter";
    facts.type = typeName(object.type);
    if (!object.isVirtual) facts.address = object.address;
    facts.extendedLimits = object.extendedLimits;
    facts.writable = !object.readOnly;
    facts.isVirtual = object.isVirtual;
    facts.recordLayout = object.deposit;
    facts.axes = object.axes;
    const a2l::RecordLayout* layout = description.findRecordLayout(object.deposit);
    const auto* values = layout == nullptr ? nullptr : layout->find(a2l::RecordLayout::Field::functionValues);
    facts.isPointer = values != nullptr && a2l::isPointer(values->addressType);
    return facts;
}

ObjectFacts factsOf(const a2l::Description& description, const a2l::AxisPoints& object) {
    ObjectFacts facts;
    facts.kind = "axis";
    facts.name = object.name;
    facts.description = object.longIdentifier;
    facts.type = "AXIS_PTS";
    facts.address = object.address;
    facts.limits = {object.lowerLimit, object.upperLimit};
    facts.conversion = object.conversion;
    facts.recordLayout = object.deposit;
    facts.addressExtension = object.addressExtension;
    facts.displayName = object.displayIdentifier;
    facts.writable = !object.readOnly;
    facts.byteOrder = byteOrderOf(description, object.byteOrder);
    facts.format = object.format;
    facts.physUnit = object.physUnit;
    facts.inputQuantity = object.inputQuantity;
    facts.maxAxisPoints = object.maxAxisPoints;
    return facts;
}

ObjectFacts factsOf(const a2l::Description& /*description*/, const a2l::Blob& object) {
    ObjectFacts facts;
    facts.kind = "blob";
    facts.name = object.name;
    facts.description = object.longIdentifier;
    facts.type = "BLOB";
    facts.address = object.address;
    facts.addressExtension = object.addressExtension;
    facts.elementCount = object.size;
    facts.writable = !object.readOnly;
    return facts;
}

ObjectFacts factsOf(const a2l::Description& description, const a2l::Instance& object) {
    ObjectFacts facts;
    facts.kind = "instance";
    facts.name = object.name;
    facts.description = description.details(object).longIdentifier;
    facts.address = object.address;
    facts.addressExtension = object.addressExtension;
    facts.typeDefinition = description.typeName(object);
    facts.leafCount = a2l::leafCount(description, object);
    facts.events = description.events(object);
    return facts;
}

void overwrite(ObjectFacts& facts, const a2l::Overwrite& overwrite) {
    if (overwrite.axis != 0) return;
    if (!overwrite.conversion.empty()) facts.conversion = overwrite.conversion;
    if (!overwrite.format.empty()) facts.format = overwrite.format;
    if (overwrite.physUnit) facts.physUnit = overwrite.physUnit;
    if (overwrite.limits) facts.limits = overwrite.limits;
    if (overwrite.extendedLimits) facts.extendedLimits = overwrite.extendedLimits;
}

/// Of a part: what its type says, at its own place.
ObjectFacts factsOf(const a2l::Description& description, std::shared_ptr<const a2l::Leaf> leaf) {
    ObjectFacts facts =
        std::visit([&](const auto* record) { return factsOf(description, *record); }, leaf->record);
    facts.typeDefinition = facts.name;
    facts.name = leaf->name;
    facts.instance = leaf->instance->name;
    if (facts.description.empty()) facts.description = description.details(*leaf->instance).longIdentifier;
    facts.address = leaf->address.address;
    facts.addressExtension = leaf->address.extension;
    if (facts.kind == "measurement" && facts.events.empty())
        facts.events = description.events(*leaf->instance);
    const bool readWrite = facts.kind == "measurement" && leaf->instance->readWrite;
    facts.writable = (facts.writable.value_or(true) || readWrite) && !leaf->instance->readOnly;
    for (const a2l::Overwrite* changed : leaf->overwrites)
        overwrite(facts, *changed);
    for (const a2l::PointerHop& hop : leaf->hops)
        facts.pointers.push_back(std::to_string(hop.size) + " byte, then " + std::to_string(hop.offset) +
                                 " byte(s) further");
    facts.leaf = std::move(leaf);
    return facts;
}

ObjectFacts factsOf(const a2l::Description& /*description*/, const a2l::CompuMethod& object) {
    ObjectFacts facts;
    facts.kind = "conversion";
    facts.name = object.name;
    facts.description = object.longIdentifier;
    facts.conversion = object.name;
    return facts;
}

}  // namespace

std::optional<ObjectFacts> findFacts(const a2l::Description& description, std::string_view name) {
    if (const auto* object = description.findMeasurement(name)) return factsOf(description, *object);
    if (const auto* object = description.findCharacteristic(name)) return factsOf(description, *object);
    if (const auto* object = description.findAxisPoints(name)) return factsOf(description, *object);
    if (const auto* object = description.findBlob(name)) return factsOf(description, *object);
    const bool isPart = a2l::belongsToInstance(description, name);
    if (auto leaf = a2l::findLeaf(description, name); isPart && leaf)
        return factsOf(description, std::make_shared<const a2l::Leaf>(std::move(leaf).value()));
    if (const auto* object = description.findInstance(name)) return factsOf(description, *object);
    if (const auto* object = description.findCompuMethod(name)) return factsOf(description, *object);
    return std::nullopt;
}

std::vector<Use> usesOf(const a2l::Description& description, const ObjectFacts& object) {
    const bool isConversion = object.kind == "conversion";
    const bool isAxis = object.kind == "axis";
    std::vector<Use> uses;
    const auto use = [&](bool isUsed, std::string_view by, std::string_view how, std::size_t axis = 0) {
        if (isUsed) uses.push_back({by, how, axis});
    };
    if (isConversion) {
        for (const a2l::Measurement& other : description.measurements)
            use(other.conversion == object.name, other.name, "conversion");
    }
    for (const a2l::Characteristic& other : description.characteristics) {
        use(isConversion && other.conversion == object.name, other.name, "conversion");
        for (std::size_t i = 0; i < other.axes.size(); ++i) {
            const a2l::AxisDescription& axis = other.axes[i];
            use(isConversion && axis.conversion == object.name, other.name, "conversion", i + 1);
            use(isAxis && axis.reference == object.name, other.name, "points", i + 1);
            use(!isConversion && axis.inputQuantity == object.name, other.name, "input", i + 1);
        }
    }
    for (const a2l::AxisPoints& other : description.axisPoints) {
        use(isConversion && other.conversion == object.name, other.name, "conversion");
        use(!isConversion && other.inputQuantity == object.name, other.name, "input");
    }
    return uses;
}

}  // namespace lm::cli
