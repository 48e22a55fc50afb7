#include "a2l/object_readers.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <string>

#include "a2l/arguments.h"
#include "a2l/if_data.h"
#include "a2l/layout_readers.h"

namespace lm::a2l {
namespace {

enum class ObjectWord : std::uint8_t {
    other,
    addressType,
    arraySize,
    bitMask,
    byteOrder,
    calibrationAccess,
    deposit,
    displayIdentifier,
    ecuAddress,
    ecuAddressExtension,
    encoding,
    extendedLimits,
    format,
    guardRails,
    layout,
    matrixDim,
    monotony,
    number,
    physUnit,
    readOnly,
    readWrite,
};
using ObjectKeyword = OptionalKeyword<ObjectWord>;

constexpr std::array kMeasurementKeywords = {
    ObjectKeyword{"ECU_ADDRESS", 1, ObjectWord::ecuAddress},
    ObjectKeyword{"FORMAT", 1, ObjectWord::format},
    ObjectKeyword{"ECU_ADDRESS_EXTENSION", 1, ObjectWord::ecuAddressExtension},
    ObjectKeyword{"SYMBOL_LINK", 2, ObjectWord::other},
    ObjectKeyword{"DISPLAY_IDENTIFIER", 1, ObjectWord::displayIdentifier},
    ObjectKeyword{"PHYS_UNIT", 1, ObjectWord::physUnit},
    ObjectKeyword{"BIT_MASK", 1, ObjectWord::bitMask},
    ObjectKeyword{"READ_WRITE", 0, ObjectWord::readWrite},
    ObjectKeyword{"READ_ONLY", 0, ObjectWord::readOnly},
    ObjectKeyword{"MATRIX_DIM", 0, ObjectWord::matrixDim},
    ObjectKeyword{"ARRAY_SIZE", 1, ObjectWord::arraySize},
    ObjectKeyword{"BYTE_ORDER", 1, ObjectWord::byteOrder},
    ObjectKeyword{"LAYOUT", 1, ObjectWord::layout},
    ObjectKeyword{"ADDRESS_TYPE", 1, ObjectWord::addressType},
    ObjectKeyword{"ERROR_MASK", 1, ObjectWord::other},
    ObjectKeyword{"MAX_REFRESH", 2, ObjectWord::other},
    ObjectKeyword{"MODEL_LINK", 1, ObjectWord::other},
    ObjectKeyword{"REF_MEMORY_SEGMENT", 1, ObjectWord::other},
};

constexpr std::array kCharacteristicKeywords = {
    ObjectKeyword{"FORMAT", 1, ObjectWord::format},
    ObjectKeyword{"EXTENDED_LIMITS", 2, ObjectWord::extendedLimits},
    ObjectKeyword{"ECU_ADDRESS_EXTENSION", 1, ObjectWord::ecuAddressExtension},
    ObjectKeyword{"SYMBOL_LINK", 2, ObjectWord::other},
    ObjectKeyword{"DISPLAY_IDENTIFIER", 1, ObjectWord::displayIdentifier},
    ObjectKeyword{"PHYS_UNIT", 1, ObjectWord::physUnit},
    ObjectKeyword{"BIT_MASK", 1, ObjectWord::bitMask},
    ObjectKeyword{"READ_ONLY", 0, ObjectWord::readOnly},
    ObjectKeyword{"MATRIX_DIM", 0, ObjectWord::matrixDim},
    ObjectKeyword{"NUMBER", 1, ObjectWord::number},
    ObjectKeyword{"BYTE_ORDER", 1, ObjectWord::byteOrder},
    ObjectKeyword{"CALIBRATION_ACCESS", 1, ObjectWord::calibrationAccess},
    ObjectKeyword{"COMPARISON_QUANTITY", 1, ObjectWord::other},
    ObjectKeyword{"ENCODING", 1, ObjectWord::encoding},
    ObjectKeyword{"MAX_REFRESH", 2, ObjectWord::other},
    ObjectKeyword{"MODEL_LINK", 1, ObjectWord::other},
    ObjectKeyword{"REF_MEMORY_SEGMENT", 1, ObjectWord::other},
    ObjectKeyword{"STEP_SIZE", 1, ObjectWord::other},
    ObjectKeyword{"GUARD_RAILS", 0, ObjectWord::guardRails},
};

constexpr std::array kAxisPointsKeywords = {
    ObjectKeyword{"BYTE_ORDER", 1, ObjectWord::byteOrder},
    ObjectKeyword{"DEPOSIT", 1, ObjectWord::deposit},
    ObjectKeyword{"MONOTONY", 1, ObjectWord::monotony},
    ObjectKeyword{"FORMAT", 1, ObjectWord::format},
    ObjectKeyword{"PHYS_UNIT", 1, ObjectWord::physUnit},
    ObjectKeyword{"READ_ONLY", 0, ObjectWord::readOnly},
    ObjectKeyword{"GUARD_RAILS", 0, ObjectWord::guardRails},
    ObjectKeyword{"DISPLAY_IDENTIFIER", 1, ObjectWord::displayIdentifier},
    ObjectKeyword{"ECU_ADDRESS_EXTENSION", 1, ObjectWord::ecuAddressExtension},
    ObjectKeyword{"SYMBOL_LINK", 2, ObjectWord::other},
    ObjectKeyword{"CALIBRATION_ACCESS", 1, ObjectWord::calibrationAccess},
    ObjectKeyword{"EXTENDED_LIMITS", 2, ObjectWord::extendedLimits},
    ObjectKeyword{"MODEL_LINK", 1, ObjectWord::other},
    ObjectKeyword{"REF_MEMORY_SEGMENT", 1, ObjectWord::other},
    ObjectKeyword{"STEP_SIZE", 1, ObjectWord::other},
};

// The numbers of MATRIX_DIM, of which older files fill unused ones with 0, or the one of ARRAY_SIZE and
// NUMBER, for which MATRIX_DIM has precedence.
template <typename Object>
void readDimensions(Object& object, const Block& block, std::size_t first, std::string_view label,
                    ModelStore& store) {
    constexpr std::uint64_t kMaximum = std::numeric_limits<std::uint32_t>::max();
    const bool isMatrix = label == "MATRIX_DIM";
    PoolRange range{static_cast<std::uint32_t>(store.dimensions.size()), 0};
    std::uint64_t size = 1;
    std::size_t i = first;
    do {
        const auto dimension = readCount<std::uint32_t>(block, i, label);
        if (dimension > 0) size = std::min(size * dimension, kMaximum);
        store.dimensions.push_back(dimension);
        ++range.count;
        ++i;
    } while (isMatrix && i < block.tokens().size() && block.tokens()[i].kind == TokenKind::number &&
             range.count < std::numeric_limits<std::uint16_t>::max());
    object.elementCount = std::max(object.elementCount, static_cast<std::uint32_t>(size));
    if (isMatrix || object.dimensions.count == 0) object.dimensions = range;
}

// The names of a MAP_LIST.
PoolRange readMapList(const Block& block, ModelStore& store) {
    PoolRange range{static_cast<std::uint32_t>(store.maps.size()), 0};
    for (std::size_t i = 0; i < block.tokens().size(); ++i) {
        if (range.count == std::numeric_limits<std::uint16_t>::max())
            throw BlockError("MAP_LIST is too long");
        store.maps.push_back(store.common(readIdentifier(block, i, "MAP_LIST")));
        ++range.count;
    }
    return range;
}

// What a list says of its events: the less, the rather they are the measurement's own.
enum class EventList : std::uint8_t { fixed, preset, available, other };

EventList eventList(std::string_view keyword, EventList around) {
    if (keyword == "FIXED_EVENT_LIST") return EventList::fixed;
    if (keyword == "DEFAULT_EVENT_LIST") return EventList::preset;
    if (keyword == "AVAILABLE_EVENT_LIST") return EventList::available;
    return around;
}

struct PreferredEvent {
    std::size_t position = 0;  ///< in the pool
    std::optional<EventList> list = {};
};

// Every EVENT with a channel number, at any depth, in the order of the file. FIXED_EVENT_LIST is a word in
// front of its events in some files and a block in others.
void collectEvents(const Block& block, EventList list, std::vector<std::uint16_t>& events,
                   PreferredEvent& preferred) {
    const auto tokens = block.tokens();
    auto child = block.children().begin();
    for (std::size_t i = 0;; ++i) {
        for (; child != block.children().end() && child->position <= i; ++child)
            collectEvents(*child, eventList(child->keyword, list), events, preferred);
        if (i >= tokens.size()) return;
        if (tokens[i].is("FIXED_EVENT_LIST")) list = EventList::fixed;
        if (!tokens[i].is("EVENT") || i + 1 == tokens.size()) continue;
        const Token& channel = tokens[i + 1];
        if (channel.kind == TokenKind::number && channel.value >= 0 &&
            channel.value <= std::numeric_limits<std::uint16_t>::max()) {
            if (!preferred.list || list < *preferred.list) preferred = {events.size(), list};
            events.push_back(static_cast<std::uint16_t>(channel.value));
        }
    }
}

// BIT_OPERATION: a shift by more bits than there are is as good as one by all of them.
void readBitOperation(const Block& block, BitField& bits) {
    constexpr std::uint32_t kAllBits = 64;
    const auto readShift = [&](std::size_t i, std::string_view label) {
        return static_cast<std::uint8_t>(std::min(readCount<std::uint32_t>(block, i, label), kAllBits));
    };
    bits.operation = true;
    for (std::size_t i = 0; i < block.tokens().size(); ++i) {
        const Token& token = block.tokens()[i];
        if (token.is("LEFT_SHIFT")) bits.leftShift = readShift(i + 1, "LEFT_SHIFT");
        if (token.is("RIGHT_SHIFT")) bits.rightShift = readShift(i + 1, "RIGHT_SHIFT");
        if (token.is("SIGN_EXTEND")) bits.signExtend = true;
    }
}

// What measurements and characteristics have in common.
template <typename Object>
void readCommon(Object& object, ObjectWord word, const Block& block, std::size_t value, ModelStore& store) {
    switch (word) {
        case ObjectWord::bitMask:
            object.bits.mask = readCount<std::uint64_t>(block, value, "BIT_MASK");
            object.bits.emptyMask = object.bits.mask == 0;
            break;
        case ObjectWord::byteOrder:
            readObjectByteOrder(object, block, value);
            break;
        case ObjectWord::calibrationAccess:
            if constexpr (requires { object.access; }) {
                object.access = calibrationAccessFromName(readIdentifier(block, value, "CALIBRATION_ACCESS"));
                object.readOnly = object.readOnly || forbidsWriting(object.access);
            }
            break;
        case ObjectWord::displayIdentifier:
            object.displayIdentifier = store.own(readIdentifier(block, value, "DISPLAY_IDENTIFIER"));
            break;
        case ObjectWord::guardRails:
            if constexpr (requires { object.guardRails; }) object.guardRails = true;
            break;
        case ObjectWord::ecuAddressExtension:
            object.addressExtension = readCount<std::uint8_t>(block, value, "ECU_ADDRESS_EXTENSION");
            break;
        case ObjectWord::format:
            object.format = store.common(readString(block, value, "FORMAT"));
            break;
        case ObjectWord::matrixDim:
            if constexpr (requires { object.dimensions; })
                readDimensions(object, block, value, "MATRIX_DIM", store);
            break;
        case ObjectWord::physUnit:
            object.physUnit = store.common(readString(block, value, "PHYS_UNIT"));
            break;
        case ObjectWord::readOnly:
            object.readOnly = true;
            break;
        default:
            break;
    }
}

CharacteristicType readCharacteristicType(const Block& block, std::size_t index) {
    static constexpr std::array<std::string_view, 8> kNames = {"VALUE",  "CURVE",  "MAP",     "CUBOID",
                                                               "CUBE_4", "CUBE_5", "VAL_BLK", "ASCII"};
    const std::string_view word = readIdentifier(block, index, "characteristic type");
    const auto* found = std::find(kNames.begin(), kNames.end(), word);
    if (found == kNames.end()) throw BlockError("unknown characteristic type '" + std::string(word) + "'");
    return static_cast<CharacteristicType>(found - kNames.begin());
}

TextEncoding readEncoding(const Block& block, std::size_t index) {
    const std::string_view word = readIdentifier(block, index, "ENCODING");
    if (word == "UTF8") return TextEncoding::utf8;
    if (word == "UTF16") return TextEncoding::utf16;
    if (word == "UTF32") return TextEncoding::utf32;
    throw BlockError("unknown encoding '" + std::string(word) + "'");
}

}  // namespace

std::string_view ModelStore::ownPlain(std::string_view text) {
    return texts.keep(withPlainQuotes(text));
}

EventRange readEvents(const Block& block, ModelStore& store) {
    EventRange range;
    range.first = static_cast<std::uint32_t>(store.events.size());
    PreferredEvent preferred{store.events.size()};
    for (const Block& child : block.children())
        if (isXcpInterfaceData(child)) collectEvents(child, EventList::other, store.events, preferred);
    const std::size_t count =
        std::min<std::size_t>(store.events.size() - range.first, std::numeric_limits<std::uint16_t>::max());
    store.events.resize(range.first + count);
    range.count = static_cast<std::uint16_t>(count);
    const std::size_t position = preferred.position - range.first;
    if (position < count) range.preferred = static_cast<std::uint16_t>(position);
    return range;
}

Measurement readMeasurement(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 8;
    Measurement object;
    const std::string_view name = readIdentifier(block, 0, "name");
    const std::string_view longIdentifier = readString(block, 1, "long identifier");
    object.dataType = readDataType(block, 2);
    const std::string_view conversion = readIdentifier(block, 3, "conversion");
    readNumber(block, 4, "resolution");
    readNumber(block, 5, "accuracy");
    object.lowerLimit = readNumber(block, 6, "lower limit");
    object.upperLimit = readNumber(block, 7, "upper limit");
    forEachOptional<ObjectWord>(
        block, kPositional, kMeasurementKeywords, [&](ObjectWord word, std::size_t value) {
            if (word == ObjectWord::ecuAddress) {
                object.ecuAddress = readCount<std::uint32_t>(block, value, "ECU_ADDRESS");
                object.hasAddress = true;
            } else if (word == ObjectWord::arraySize) {
                readDimensions(object, block, value, "ARRAY_SIZE", store);
            } else if (word == ObjectWord::readWrite) {
                object.readWrite = true;
            } else if (word == ObjectWord::addressType) {
                object.addressType = readAddressType(block, value, "ADDRESS_TYPE");
            } else if (word == ObjectWord::layout) {
                object.columnDir = readIdentifier(block, value, "LAYOUT") == "COLUMN_DIR";
            } else {
                readCommon(object, word, block, value, store);
            }
        });
    object.name = store.own(name);
    object.longIdentifier = store.own(longIdentifier);
    object.conversion = store.common(conversion);

    const EventRange events = readEvents(block, store);
    object.firstEvent = events.first;
    object.eventCount = events.count;
    object.preferredEvent = events.preferred;
    for (const Block& child : block.children()) {
        // Computed by tools: an address of 0 is then no place in ECU memory.
        if (child.keyword == "VIRTUAL" && object.ecuAddress == 0) object.hasAddress = false;
        if (child.keyword == "BIT_OPERATION") readBitOperation(child, object.bits);
    }
    return object;
}

Characteristic readCharacteristic(const Block& block, ModelStore& store, Placed placed) {
    const std::size_t next = placed == Placed::yes ? 4 : 3;  // behind the address
    Characteristic object;
    const std::string_view name = readIdentifier(block, 0, "name");
    const std::string_view longIdentifier = readString(block, 1, "long identifier");
    object.type = readCharacteristicType(block, 2);
    if (placed == Placed::yes) object.address = readCount<std::uint32_t>(block, 3, "address");
    object.deposit = store.common(readIdentifier(block, next, "deposit"));
    object.maxDiff = readNumber(block, next + 1, "max diff");
    object.conversion = store.common(readIdentifier(block, next + 2, "conversion"));
    object.lowerLimit = readNumber(block, next + 3, "lower limit");
    object.upperLimit = readNumber(block, next + 4, "upper limit");
    forEachOptional<ObjectWord>(block, next + 5, kCharacteristicKeywords,
                                [&](ObjectWord word, std::size_t value) {
                                    if (word == ObjectWord::extendedLimits) {
                                        object.extendedLimits = readPair(block, value, "EXTENDED_LIMITS");
                                    } else if (word == ObjectWord::number) {
                                        readDimensions(object, block, value, "NUMBER", store);
                                    } else if (word == ObjectWord::encoding) {
                                        object.encoding = readEncoding(block, value);
                                    } else {
                                        readCommon(object, word, block, value, store);
                                    }
                                });
    for (const Block& child : block.children()) {
        if (child.keyword == "AXIS_DESCR") object.axes.push_back(readAxisDescription(child, store));
        if (child.keyword == "MAP_LIST") object.maps = readMapList(child, store);
        if (child.keyword == "VIRTUAL_CHARACTERISTIC") object.isVirtual = true;
        if (child.keyword == "BIT_OPERATION") readBitOperation(child, object.bits);
    }
    object.name = store.own(name);
    object.longIdentifier = store.own(longIdentifier);
    return object;
}

AxisPoints readAxisPoints(const Block& block, ModelStore& store, Placed placed) {
    const std::size_t next = placed == Placed::yes ? 3 : 2;  // behind the address
    AxisPoints object;
    const std::string_view name = readIdentifier(block, 0, "name");
    const std::string_view longIdentifier = readString(block, 1, "long identifier");
    if (placed == Placed::yes) object.address = readCount<std::uint32_t>(block, 2, "address");
    object.inputQuantity = store.common(readIdentifier(block, next, "input quantity"));
    object.deposit = store.common(readIdentifier(block, next + 1, "deposit"));
    readNumber(block, next + 2, "max diff");
    object.conversion = store.common(readIdentifier(block, next + 3, "conversion"));
    object.maxAxisPoints = readCount<std::uint32_t>(block, next + 4, "max axis points");
    object.lowerLimit = readNumber(block, next + 5, "lower limit");
    object.upperLimit = readNumber(block, next + 6, "upper limit");
    forEachOptional<ObjectWord>(block, next + 7, kAxisPointsKeywords,
                                [&](ObjectWord word, std::size_t value) {
                                    if (word == ObjectWord::extendedLimits) {
                                        object.extendedLimits = readPair(block, value, "EXTENDED_LIMITS");
                                    } else if (word == ObjectWord::deposit) {
                                        object.pointDeposit = readDeposit(block, value);
                                    } else if (word == ObjectWord::monotony) {
                                        object.monotony = readMonotony(block, value);
                                    } else {
                                        readCommon(object, word, block, value, store);
                                    }
                                });
    object.name = store.own(name);
    object.longIdentifier = store.own(longIdentifier);
    return object;
}

}  // namespace lm::a2l
