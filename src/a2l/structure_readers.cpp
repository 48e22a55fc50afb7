#include "a2l/structure_readers.h"

#include <array>
#include <limits>
#include <string>

#include "a2l/arguments.h"

namespace lm::a2l {
namespace {

enum class Word : std::uint8_t {
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
using Keyword = OptionalKeyword<Word>;

// Of TYPEDEF_STRUCTURE, STRUCTURE_COMPONENT, INSTANCE and BLOB.
constexpr std::array kPartKeywords = {
    Keyword{"MATRIX_DIM", 0, Word::matrixDim},
    Keyword{"LAYOUT", 1, Word::layout},
    Keyword{"ADDRESS_TYPE", 1, Word::addressType},
    Keyword{"CALIBRATION_ACCESS", 1, Word::calibrationAccess},
    Keyword{"READ_ONLY", 0, Word::readOnly},
    Keyword{"READ_WRITE", 0, Word::readWrite},
    Keyword{"ECU_ADDRESS_EXTENSION", 1, Word::addressExtension},
    Keyword{"DISPLAY_IDENTIFIER", 1, Word::other},
    Keyword{"MAX_REFRESH", 2, Word::other},
    Keyword{"MODEL_LINK", 1, Word::other},
    Keyword{"SYMBOL_LINK", 2, Word::other},
    Keyword{"SYMBOL_TYPE_LINK", 1, Word::other},
};

constexpr std::array kOverwriteKeywords = {
    Keyword{"CONVERSION", 1, Word::conversion}, Keyword{"LIMITS", 2, Word::limits},
    Keyword{"FORMAT", 1, Word::format},         Keyword{"EXTENDED_LIMITS", 2, Word::extendedLimits},
    Keyword{"PHYS_UNIT", 1, Word::physUnit},    Keyword{"INPUT_QUANTITY", 1, Word::inputQuantity},
    Keyword{"MONOTONY", 1, Word::monotony},
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

void readExtent(Extent& extent, Word word, const Block& block, std::size_t value, ModelStore& store) {
    if (word == Word::matrixDim) readMatrix(extent, block, value, store);
    if (word == Word::layout) extent.columnDir = readIdentifier(block, value, "LAYOUT") == "COLUMN_DIR";
    if (word == Word::addressType) extent.pointerSize = readPointerSize(block, value);
}

/// What INSTANCE and BLOB say of their place and of writing.
template <typename Object>
void readPlaced(Object& object, Word word, const Block& block, std::size_t value) {
    if (word == Word::addressExtension)
        object.addressExtension = readCount<std::uint8_t>(block, value, "ECU_ADDRESS_EXTENSION");
    if (word == Word::readOnly) object.readOnly = true;
    if (word == Word::calibrationAccess) {
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
    forEachOptional<Word>(block, kPositional, kPartKeywords, [&](Word word, std::size_t value) {
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
    forEachOptional<Word>(block, kPositional, kOverwriteKeywords, [&](Word keyword, std::size_t value) {
        if (keyword == Word::conversion) overwrite.conversion = word(value, "CONVERSION");
        if (keyword == Word::inputQuantity) overwrite.inputQuantity = word(value, "INPUT_QUANTITY");
        if (keyword == Word::monotony) overwrite.monotony = word(value, "MONOTONY");
        if (keyword == Word::format) overwrite.format = store.common(readString(block, value, "FORMAT"));
        if (keyword == Word::physUnit)
            overwrite.physUnit = store.common(readString(block, value, "PHYS_UNIT"));
        if (keyword == Word::limits) overwrite.limits = readPair(block, value, "LIMITS");
        if (keyword == Word::extendedLimits)
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
    forEachOptional<Word>(block, kPositional, kPartKeywords, [&](Word word, std::size_t value) {
        if (word == Word::addressType) type.pointerSize = readPointerSize(block, value);
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
    forEachOptional<Word>(block, kPositional, kPartKeywords, [&](Word word, std::size_t value) {
        readExtent(details.extent, word, block, value, store);
        readPlaced(instance, word, block, value);
        if (word == Word::readWrite) instance.readWrite = true;
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
    forEachOptional<Word>(block, kPositional, kPartKeywords,
                          [&](Word word, std::size_t value) { readPlaced(blob, word, block, value); });
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
