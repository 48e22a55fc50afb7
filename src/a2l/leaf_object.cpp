// Objects of the parts of instances, and of blobs: the record of the type, with the place and what the
// instance says otherwise.

#include <string>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "a2l/largest_record.h"
#include "a2l/object_builder.h"
#include "a2l/record_part.h"

namespace lm::a2l {
namespace {

/// What an OVERWRITE of the values changes.
void overwriteValues(auto& record, const Overwrite& overwrite) {
    if (!overwrite.conversion.empty()) record.conversion = overwrite.conversion;
    if (!overwrite.format.empty()) record.format = overwrite.format;
    if (overwrite.physUnit) record.physUnit = overwrite.physUnit;
    if (overwrite.limits) std::tie(record.lowerLimit, record.upperLimit) = *overwrite.limits;
    if constexpr (requires { record.extendedLimits; }) {
        if (overwrite.extendedLimits) record.extendedLimits = overwrite.extendedLimits;
    }
}

void overwriteAxis(auto& axis, const Overwrite& overwrite) {
    overwriteValues(axis, overwrite);
    if (!overwrite.inputQuantity.empty()) axis.inputQuantity = overwrite.inputQuantity;
    if (!overwrite.monotony.empty()) axis.monotony = monotonyFromName(overwrite.monotony);
}

/// The record as an object of its own. Its texts are the leaf's.
template <typename Record>
Record placed(const Description& description, const Record& type, const Leaf& leaf) {
    Record record = type;
    record.name = leaf.name;
    if (record.longIdentifier.empty())
        record.longIdentifier = description.details(*leaf.instance).longIdentifier;
    record.readOnly = record.readOnly || leaf.instance->readOnly;
    if constexpr (requires { record.access; }) {
        if (!forbidsWriting(record.access)) record.access = leaf.instance->access;
    }
    return record;
}

/// A structure has no byte order of its own: its pointers have that of the file, whatever they lead to.
std::vector<PointerHop> hopsOf(const Description& description, const Leaf& leaf) {
    std::vector<PointerHop> hops = leaf.hops;
    for (PointerHop& hop : hops)
        hop.byteOrder = description.byteOrder.value_or(ByteOrder::littleEndian);
    return hops;
}

/// An array of records with more than the value, or with pointers to it: all of them as one object.
Result<void> spreadRecords(const Description& description, const Characteristic& type, Object& object) {
    const RecordLayout::Entry& values = *object.record.find(RecordLayout::Field::functionValues);
    const auto byOne = [&](const char* why) {
        return objectFault(object.name, std::string(why) + ": name one, as in " + object.name + "[0]");
    };
    if (isPointer(values.addressType)) return byOne("each of its elements has a pointer of its own");
    if (object.record.entries.size() == 1) return {};
    const auto stride = largestRecord(description, type, [](std::string_view) { return 0U; });
    if (!stride) return stride.error();
    for (std::size_t i = 1; i < object.record.entries.size(); ++i) {
        if (stride.value() % borderOf(object.record.entries[i], object.record) != 0)
            return byOne("borders put its elements at uneven distances");
    }
    object.recordStride = stride.value();
    return {};
}

/// Pointers on the way, and the numbers that are not in the name.
Result<Object> withWay(const Description& description, const Leaf& leaf, Result<Object> built) {
    if (!built) return built;
    Object& object = built.value();
    object.assumptions.add(leaf.assumptions);
    const std::vector<PointerHop> hops = hopsOf(description, leaf);
    object.hops.insert(object.hops.begin(), hops.begin(), hops.end());
    object.record.nearPointerOffset = description.defaults.calibrationOffset;
    object.assumptions.add(leaf.assumptions);
    if (leaf.dimensions.empty()) return built;
    object.type = CharacteristicType::valBlk;
    object.dimensions = leaf.dimensions;
    object.columnDir = leaf.columnDir;
    if (object.dimensions.size() > 1) object.assumptions.add(Assumption::elementOrder);
    if (object.dimensions.size() > 2 && leaf.columnDir) object.assumptions.add(Assumption::columnDirection);
    for (RecordLayout::Entry& entry : object.record.entries)
        entry.indexMode = leaf.columnDir ? IndexMode::columnDir : IndexMode::rowDir;
    return built;
}

struct LeafBuilder {
    const Description& description;
    const Leaf& leaf;
    std::size_t referencesLeft;

    Result<Object> operator()(const Measurement* type) const {
        Measurement record = placed(description, *type, leaf);
        record.ecuAddress = leaf.address.address;
        record.addressExtension = leaf.address.extension;
        record.hasAddress = description.findTypeDependency(type->name) == nullptr;  // else virtual
        record.readWrite = record.readWrite || leaf.instance->readWrite;
        if (record.eventCount == 0) {  // events of the type itself are nearer
            const InstanceDetails& own = description.details(*leaf.instance);
            record.firstEvent = own.firstEvent;
            record.eventCount = own.eventCount;
            record.preferredEvent = own.preferredEvent;
        }
        for (const Overwrite* overwrite : leaf.overwrites)
            if (overwrite->axis == 0) overwriteValues(record, *overwrite);
        if (isPointer(type->addressType) && !leaf.dimensions.empty()) {
            return objectFault(leaf.name, "each of its elements has a pointer of its own: name one, as in " +
                                              leaf.name + "[0]");
        }
        return withWay(description, leaf, buildMeasurement(description, record));
    }

    Result<Object> operator()(const Characteristic* type) const {
        Characteristic record = placed(description, *type, leaf);
        record.address = leaf.address.address;
        record.addressExtension = leaf.address.extension;
        std::vector<std::string> references;
        references.reserve(record.axes.size());
        for (AxisDescription& axis : record.axes)
            axis.reference = references.emplace_back(resolveReference(leaf, axis.reference));
        for (const Overwrite* overwrite : leaf.overwrites) {
            if (overwrite->axis == 0) overwriteValues(record, *overwrite);
            if (overwrite->axis > 0 && overwrite->axis <= record.axes.size())
                overwriteAxis(record.axes[overwrite->axis - 1], *overwrite);
        }
        auto built = buildCharacteristic(description, record, referencesLeft);
        if (built && !leaf.dimensions.empty()) {
            if (auto spread = spreadRecords(description, *type, built.value()); !spread)
                return spread.error();
        }
        return withWay(description, leaf, std::move(built));
    }

    Result<Object> operator()(const AxisPoints* type) const {
        AxisPoints record = placed(description, *type, leaf);
        record.address = leaf.address.address;
        record.addressExtension = leaf.address.extension;
        for (const Overwrite* overwrite : leaf.overwrites)
            if (overwrite->axis <= 1) overwriteAxis(record, *overwrite);
        return withWay(description, leaf, buildAxisPoints(description, record));
    }

    Result<Object> operator()(const Blob* type) const {
        Blob record = placed(description, *type, leaf);
        record.address = leaf.address.address;
        record.addressExtension = leaf.address.extension;
        auto built = buildBlob(record);
        if (built) built.value().hops = hopsOf(description, leaf);
        return built;
    }
};

}  // namespace

Result<Object> buildLeaf(const Description& description, const Leaf& leaf, std::size_t referencesLeft) {
    if (referencesLeft == 0) return objectFault(leaf.name, "axes refer to curves in a circle, or too deep");
    return std::visit(LeafBuilder{description, leaf, referencesLeft}, leaf.record);
}

Result<Object> buildBlob(const Blob& blob) {
    if (blob.size == 0) return objectFault(blob.name, "a BLOB of no bytes");
    Object object;
    object.name = blob.name;
    object.description = blob.longIdentifier;
    object.kind = ObjectKind::blob;
    object.type = CharacteristicType::valBlk;
    object.writable = !blob.readOnly;
    object.access = blob.access;
    object.dimensions = {blob.size};
    object.first.name = blob.name;
    object.first.address = {blob.address, blob.addressExtension};
    return object;
}

}  // namespace lm::a2l
