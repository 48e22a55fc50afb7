#include "a2l/structure_readers.h"

#include <array>
#include <limits>
#include <string>

#include "a2l/arguments.h"

namespace lm::a2l {
namespace {

enum class StructureWord : std::uint8_t {
    other,
    addressExtension,
    addressType,
    calibrationAccess,
    conversion,
    extendedLimits,
    format,
    inputQuantity,
    layout,
    limits,
    matrixDim,
    monotony,
    physUnit,
    readOnly,
    readWrite,
};
using StructureKeyword = OptionalKeyword<StructureWord>;

// Of TYPEDEF_STRUCTURE, STRUCTURE_COMPONENT, INSTANCE and BLOB.
constexpr std::array kPartKeywords = {
    StructureKeyword{"MATRIX_DIM", 0, StructureWord::matrixDim},
    StructureKeyword{"LAYOUT", 1, StructureWord::layout},
    StructureKeyword{"ADDRESS_TYPE", 1, StructureWord::addressType},
    StructureKeyword{"CALIBRATION_ACCESS", 1, StructureWord::calibrationAccess},
    StructureKeyword{"READ_ONLY", 0, StructureWord::readOnly},
    StructureKeyword{"READ_WRITE", 0, StructureWord::readWrite},
    StructureKeyword{"ECU_ADDRESS_EXTENSION", 1, StructureWord::addressExtension},
    StructureKeyword{"DISPLAY_IDENTIFIER", 1, StructureWord::other},
    StructureKeyword{"MAX_REFRESH", 2, StructureWord::other},
    StructureKeyword{"MODEL_LINK", 1, StructureWord::other},
    StructureKeyword{"SYMBOL_LINK", 2, StructureWord::other},
    StructureKeyword{"SYMBOL_TYPE_LINK", 1, StructureWord::other},
};

constexpr std::array kOverwriteKeywords = {
    StructureKeyword{"CONVERSION", 1, StructureWord::conversion},
    StructureKeyword{"LIMITS", 2, StructureWord::limits},
    StructureKeyword{"FORMAT", 1, StructureWord::format},
    StructureKeyword{"EXTENDED_LIMITS", 2, StructureWord::extendedLimits},
    StructureKeyword{"PHYS_UNIT", 1, StructureWord::physUnit},
    StructureKeyword{"INPUT_QUANTITY", 1, StructureWord::inputQuantity},
    StructureKeyword{"MONOTONY", 1, StructureWord::monotony},
};

std::uint8_t readPointerSize(const Block& block, std::size_t index) {
    static constexpr std::array<std::pair<std::string_view, std::uint8_t>, 5> kSizes = {
        {{"DIRECT", 0}, {"PBYTE", 1}, {"PWORD", 2}, {"PLONG", 4}, {"PLONGLONG", 8}}};
    const std::string_view word = readIdentifier(block, index, "ADDRESS_TYPE");
    for (const auto& [name, size] : kSizes) {
        if (name == word) return size;
    }
    throw BlockError("unknown address type '" + std::string(word) + "'");
}

// All numbers count; some generators write 0 where 1 is meant.
void readMatrix(Extent& extent, const Block& block, std::size_t first, ModelStore& store) {
    extent.first = static_cast<std::uint32_t>(store.dimensions.size());
    extent.count = 0;
    std::size_t i = first;
    do {
        if (extent.count == std::numeric_limits<std::uint8_t>::max())
            throw BlockError("MATRIX_DIM has too many numbers");
        const auto dimension = readCount<std::uint32_t>(block, i, "MATRIX_DIM");
        store.dimensions.push_back(dimension == 0 ? 1 : dimension);
        ++extent.count;
        ++i;
    } while (i < block.tokens().size() && block.tokens()[i].kind == TokenKind::number);
}

void readExtent(Extent& extent, StructureWord word, const Block& block, std::size_t value,
                ModelStore& store) {
    if (word == StructureWord::matrixDim) readMatrix(extent, block, value, store);
    if (word == StructureWord::layout)
        extent.columnDir = readIdentifier(block, value, "LAYOUT") == "COLUMN_DIR";
    if (word == StructureWord::addressType) extent.pointerSize = readPointerSize(block, value);
}

/// What INSTANCE and BLOB say of their place and of writing.
template <typename Object>
void readPlaced(Object& object, StructureWord word, const Block& block, std::size_t value) {
    if (word == StructureWord::addressExtension)
        object.addressExtension = readCount<std::uint8_t>(block, value, "ECU_ADDRESS_EXTENSION");
    if (word == StructureWord::readOnly) object.readOnly = true;
    if (word == StructureWord::calibrationAccess) {
        object.access = calibrationAccessFromName(readIdentifier(block, value, "CALIBRATION_ACCESS"));
        object.readOnly = object.readOnly || forbidsWriting(object.access);
    }
}

StructureComponent readComponent(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 3;
    StructureComponent component;
    const std::string_view name = readIdentifier(block, 0, "name");
    component.typeName = store.common(readIdentifier(block, 1, "type"));
    component.offset = readCount<std::uint32_t>(block, 2, "offset");
    forEachOptional<StructureWord>(block, kPositional, kPartKeywords,
                                   [&](StructureWord word, std::size_t value) {
                                       readExtent(component.extent, word, block, value, store);
                                   });
    component.name = store.common(name);
    return component;
}

Overwrite readOverwrite(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 2;
    Overwrite overwrite;
    overwrite.part = store.common(readIdentifier(block, 0, "name"));
    overwrite.axis = readCount<std::uint32_t>(block, 1, "axis number");
    const auto word = [&](std::size_t value, std::string_view label) {
        return store.common(readIdentifier(block, value, label));
    };
    forEachOptional<StructureWord>(
        block, kPositional, kOverwriteKeywords, [&](StructureWord keyword, std::size_t value) {
            if (keyword == StructureWord::conversion) overwrite.conversion = word(value, "CONVERSION");
            if (keyword == StructureWord::inputQuantity)
                overwrite.inputQuantity = word(value, "INPUT_QUANTITY");
            if (keyword == StructureWord::monotony) overwrite.monotony = word(value, "MONOTONY");
            if (keyword == StructureWord::format)
                overwrite.format = store.common(readString(block, value, "FORMAT"));
            if (keyword == StructureWord::physUnit)
                overwrite.physUnit = store.common(readString(block, value, "PHYS_UNIT"));
            if (keyword == StructureWord::limits) overwrite.limits = readPair(block, value, "LIMITS");
            if (keyword == StructureWord::extendedLimits)
                overwrite.extendedLimits = readPair(block, value, "EXTENDED_LIMITS");
        });
    return overwrite;
}

std::uint32_t typeNumber(std::string_view name, ModelStore& store) {
    if (const auto known = store.typeNumbers.find(name); known != store.typeNumbers.end())
        return known->second;
    const auto number = static_cast<std::uint32_t>(store.instanceTypes.size());
    store.instanceTypes.push_back(store.common(name));
    store.typeNumbers.emplace(store.instanceTypes.back(), number);
    return number;
}

}  // namespace

StructureType readStructureType(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 3;
    StructureType type;
    const std::string_view name = readIdentifier(block, 0, "name");
    const std::string_view longIdentifier = readString(block, 1, "long identifier");
    type.size = readCount<std::uint32_t>(block, 2, "size");
    forEachOptional<StructureWord>(block, kPositional, kPartKeywords,
                                   [&](StructureWord word, std::size_t value) {
                                       if (word == StructureWord::addressType)
                                           type.pointerSize = readPointerSize(block, value);
                                   });
    for (const Block& child : block.children()) {
        if (child.keyword == "STRUCTURE_COMPONENT") type.components.push_back(readComponent(child, store));
    }
    type.name = store.own(name);
    type.longIdentifier = store.own(longIdentifier);
    return type;
}

Instance readInstance(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 4;
    Instance instance;
    InstanceDetails details;
    const std::string_view name = readIdentifier(block, 0, "name");
    const std::string_view longIdentifier = readString(block, 1, "long identifier");
    const std::string_view type = readIdentifier(block, 2, "type");
    instance.address = readCount<std::uint32_t>(block, 3, "address");
    forEachOptional<StructureWord>(block, kPositional, kPartKeywords,
                                   [&](StructureWord word, std::size_t value) {
                                       readExtent(details.extent, word, block, value, store);
                                       readPlaced(instance, word, block, value);
                                       if (word == StructureWord::readWrite) instance.readWrite = true;
                                   });
    const EventRange events = readEvents(block, store);
    details.firstEvent = events.first;
    details.eventCount = events.count;
    details.preferredEvent = events.preferred;
    details.firstOverwrite = static_cast<std::uint32_t>(store.overwrites.size());
    for (const Block& child : block.children()) {
        if (child.keyword != "OVERWRITE") continue;
        if (details.overwriteCount == std::numeric_limits<std::uint16_t>::max())
            throw BlockError("too many OVERWRITE");
        store.overwrites.push_back(readOverwrite(child, store));
        ++details.overwriteCount;
    }
    instance.name = store.own(name);
    instance.type = typeNumber(type, store);
    details.longIdentifier = store.own(longIdentifier);
    const Extent& extent = details.extent;
    const bool isPlain = extent.count == 0 && extent.pointerSize == 0 && details.overwriteCount == 0 &&
                         details.eventCount == 0;
    if (isPlain && longIdentifier.empty()) return instance;
    instance.details = static_cast<std::uint32_t>(store.instanceDetails.size());
    store.instanceDetails.push_back(details);
    return instance;
}

Blob readBlob(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 4;
    Blob blob;
    const std::string_view name = readIdentifier(block, 0, "name");
    const std::string_view longIdentifier = readString(block, 1, "long identifier");
    blob.address = readCount<std::uint32_t>(block, 2, "address");
    blob.size = readCount<std::uint32_t>(block, 3, "size");
    forEachOptional<StructureWord>(
        block, kPositional, kPartKeywords,
        [&](StructureWord word, std::size_t value) { readPlaced(blob, word, block, value); });
    blob.name = store.own(name);
    blob.longIdentifier = store.own(longIdentifier);
    return blob;
}

Blob readBlobType(const Block& block, ModelStore& store) {
    Blob blob;
    const std::string_view name = readIdentifier(block, 0, "name");
    const std::string_view longIdentifier = readString(block, 1, "long identifier");
    blob.size = readCount<std::uint32_t>(block, 2, "size");
    blob.name = store.own(name);
    blob.longIdentifier = store.own(longIdentifier);
    return blob;
}

}  // namespace lm::a2l
