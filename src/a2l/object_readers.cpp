#include "a2l/object_readers.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <string>

#include "a2l/arguments.h"
#include "a2l/if_data.h"

namespace lm::a2l {
namespace {

enum class Word : std::uint8_t {
    other,
    addressType,
    arraySize,
    bitMask,
    byteOrder,
    displayIdentifier,
    ecuAddress,
    ecuAddressExtension,
    extendedLimits,
    format,
    matrixDim,
    number,
    physUnit,
    readOnly,
    readWrite,
    axisPointsRef,
};
using Keyword = OptionalKeyword<Word>;

constexpr std::array kMeasurementKeywords = {
    Keyword{"ECU_ADDRESS", 1, Word::ecuAddress},
    Keyword{"FORMAT", 1, Word::format},
    Keyword{"ECU_ADDRESS_EXTENSION", 1, Word::ecuAddressExtension},
    Keyword{"SYMBOL_LINK", 2, Word::other},
    Keyword{"DISPLAY_IDENTIFIER", 1, Word::displayIdentifier},
    Keyword{"PHYS_UNIT", 1, Word::physUnit},
    Keyword{"BIT_MASK", 1, Word::bitMask},
    Keyword{"READ_WRITE", 0, Word::readWrite},
    Keyword{"READ_ONLY", 0, Word::readOnly},
    Keyword{"MATRIX_DIM", 0, Word::matrixDim},
    Keyword{"ARRAY_SIZE", 1, Word::arraySize},
    Keyword{"BYTE_ORDER", 1, Word::byteOrder},
    Keyword{"LAYOUT", 1, Word::other},
    Keyword{"ADDRESS_TYPE", 1, Word::addressType},
    Keyword{"ERROR_MASK", 1, Word::other},
    Keyword{"MAX_REFRESH", 2, Word::other},
    Keyword{"MODEL_LINK", 1, Word::other},
    Keyword{"REF_MEMORY_SEGMENT", 1, Word::other},
};

constexpr std::array kCharacteristicKeywords = {
    Keyword{"FORMAT", 1, Word::format},
    Keyword{"EXTENDED_LIMITS", 2, Word::extendedLimits},
    Keyword{"ECU_ADDRESS_EXTENSION", 1, Word::ecuAddressExtension},
    Keyword{"SYMBOL_LINK", 2, Word::other},
    Keyword{"DISPLAY_IDENTIFIER", 1, Word::displayIdentifier},
    Keyword{"PHYS_UNIT", 1, Word::physUnit},
    Keyword{"BIT_MASK", 1, Word::bitMask},
    Keyword{"READ_ONLY", 0, Word::readOnly},
    Keyword{"MATRIX_DIM", 0, Word::matrixDim},
    Keyword{"NUMBER", 1, Word::number},
    Keyword{"BYTE_ORDER", 1, Word::byteOrder},
    Keyword{"CALIBRATION_ACCESS", 1, Word::other},
    Keyword{"COMPARISON_QUANTITY", 1, Word::other},
    Keyword{"ENCODING", 1, Word::other},
    Keyword{"MAX_REFRESH", 2, Word::other},
    Keyword{"MODEL_LINK", 1, Word::other},
    Keyword{"REF_MEMORY_SEGMENT", 1, Word::other},
    Keyword{"STEP_SIZE", 1, Word::other},
};

constexpr std::array kAxisKeywords = {
    Keyword{"AXIS_PTS_REF", 1, Word::axisPointsRef},
    Keyword{"CURVE_AXIS_REF", 1, Word::other},
    Keyword{"BYTE_ORDER", 1, Word::other},
    Keyword{"DEPOSIT", 1, Word::other},
    Keyword{"MONOTONY", 1, Word::other},
    Keyword{"PHYS_UNIT", 1, Word::other},
    Keyword{"FORMAT", 1, Word::other},
};

// MATRIX_DIM takes one to five numbers, older files fill unused dimensions with 0.
std::uint32_t readMatrixSize(const Block& block, std::size_t first) {
    constexpr std::uint64_t kMaximum = std::numeric_limits<std::uint32_t>::max();
    std::uint64_t size = 1;
    std::size_t i = first;
    do {
        const auto dimension = readCount<std::uint32_t>(block, i, "MATRIX_DIM");
        if (dimension > 0) size = std::min(size * dimension, kMaximum);
        ++i;
    } while (i < block.tokens().size() && block.tokens()[i].kind == TokenKind::number);
    return static_cast<std::uint32_t>(size);
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
void readCommon(Object& object, Word word, const Block& block, std::size_t value, ModelStore& store) {
    switch (word) {
        case Word::bitMask:
            object.bits.mask = readCount<std::uint64_t>(block, value, "BIT_MASK");
            object.bits.emptyMask = object.bits.mask == 0;
            break;
        case Word::byteOrder:
            object.byteOrder = readByteOrder(block, value);
            break;
        case Word::displayIdentifier:
            object.displayIdentifier = store.own(readIdentifier(block, value, "DISPLAY_IDENTIFIER"));
            break;
        case Word::ecuAddressExtension:
            object.addressExtension = readCount<std::uint8_t>(block, value, "ECU_ADDRESS_EXTENSION");
            break;
        case Word::format:
            object.format = store.common(readString(block, value, "FORMAT"));
            break;
        case Word::matrixDim:
            object.elementCount = std::max(object.elementCount, readMatrixSize(block, value));
            break;
        case Word::physUnit:
            object.physUnit = store.common(readString(block, value, "PHYS_UNIT"));
            break;
        case Word::readOnly:
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

AxisDescription readAxisDescription(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 6;
    AxisDescription axis;
    axis.attribute = store.common(readIdentifier(block, 0, "attribute"));
    axis.inputQuantity = store.common(readIdentifier(block, 1, "input quantity"));
    axis.conversion = store.common(readIdentifier(block, 2, "conversion"));
    axis.maxAxisPoints = readCount<std::uint32_t>(block, 3, "max axis points");
    axis.lowerLimit = readNumber(block, 4, "lower limit");
    axis.upperLimit = readNumber(block, 5, "upper limit");
    forEachOptional<Word>(block, kPositional, kAxisKeywords, [&](Word word, std::size_t value) {
        if (word != Word::axisPointsRef) return;
        axis.axisPointsRef = store.common(readIdentifier(block, value, "AXIS_PTS_REF"));
    });
    return axis;
}

}  // namespace

std::string_view ModelStore::ownPlain(std::string_view text) {
    return texts.keep(withPlainQuotes(text));
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
    forEachOptional<Word>(block, kPositional, kMeasurementKeywords, [&](Word word, std::size_t value) {
        if (word == Word::ecuAddress) {
            object.ecuAddress = readCount<std::uint32_t>(block, value, "ECU_ADDRESS");
            object.hasAddress = true;
        } else if (word == Word::arraySize) {
            const auto size = readCount<std::uint32_t>(block, value, "ARRAY_SIZE");
            object.elementCount = std::max(object.elementCount, size);
        } else if (word == Word::readWrite) {
            object.readWrite = true;
        } else if (word == Word::addressType) {
            object.isPointer = isPointerType(readIdentifier(block, value, "ADDRESS_TYPE"));
        } else {
            readCommon(object, word, block, value, store);
        }
    });
    object.name = store.own(name);
    object.longIdentifier = store.own(longIdentifier);
    object.conversion = store.common(conversion);

    object.firstEvent = static_cast<std::uint32_t>(store.events.size());
    PreferredEvent preferred{store.events.size()};
    for (const Block& child : block.children()) {
        if (isXcpInterfaceData(child)) collectEvents(child, EventList::other, store.events, preferred);
        // Computed by tools: an address of 0 is then no place in ECU memory.
        if (child.keyword == "VIRTUAL" && object.ecuAddress == 0) object.hasAddress = false;
        if (child.keyword == "BIT_OPERATION") readBitOperation(child, object.bits);
    }
    const std::size_t count = std::min<std::size_t>(store.events.size() - object.firstEvent,
                                                    std::numeric_limits<std::uint16_t>::max());
    store.events.resize(object.firstEvent + count);
    object.eventCount = static_cast<std::uint16_t>(count);
    const std::size_t position = preferred.position - object.firstEvent;
    if (position < count) object.preferredEvent = static_cast<std::uint16_t>(position);
    return object;
}

Characteristic readCharacteristic(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 9;
    Characteristic object;
    const std::string_view name = readIdentifier(block, 0, "name");
    const std::string_view longIdentifier = readString(block, 1, "long identifier");
    object.type = readCharacteristicType(block, 2);
    object.address = readCount<std::uint32_t>(block, 3, "address");
    object.deposit = store.common(readIdentifier(block, 4, "deposit"));
    object.maxDiff = readNumber(block, 5, "max diff");
    object.conversion = store.common(readIdentifier(block, 6, "conversion"));
    object.lowerLimit = readNumber(block, 7, "lower limit");
    object.upperLimit = readNumber(block, 8, "upper limit");
    forEachOptional<Word>(block, kPositional, kCharacteristicKeywords, [&](Word word, std::size_t value) {
        if (word == Word::extendedLimits) {
            object.extendedLimits = {readNumber(block, value, "EXTENDED_LIMITS"),
                                     readNumber(block, value + 1, "EXTENDED_LIMITS")};
        } else if (word == Word::number) {
            const auto size = readCount<std::uint32_t>(block, value, "NUMBER");
            object.elementCount = std::max(object.elementCount, size);
        } else {
            readCommon(object, word, block, value, store);
        }
    });
    for (const Block& child : block.children()) {
        if (child.keyword == "AXIS_DESCR") object.axes.push_back(readAxisDescription(child, store));
        if (child.keyword == "VIRTUAL_CHARACTERISTIC") object.isVirtual = true;
        if (child.keyword == "BIT_OPERATION") readBitOperation(child, object.bits);
    }
    object.name = store.own(name);
    object.longIdentifier = store.own(longIdentifier);
    return object;
}

AxisPoints readAxisPoints(const Block& block, ModelStore& store) {
    AxisPoints object;
    const std::string_view name = readIdentifier(block, 0, "name");
    const std::string_view longIdentifier = readString(block, 1, "long identifier");
    object.address = readCount<std::uint32_t>(block, 2, "address");
    object.inputQuantity = store.common(readIdentifier(block, 3, "input quantity"));
    object.deposit = store.common(readIdentifier(block, 4, "deposit"));
    readNumber(block, 5, "max diff");
    object.conversion = store.common(readIdentifier(block, 6, "conversion"));
    object.maxAxisPoints = readCount<std::uint32_t>(block, 7, "max axis points");
    object.lowerLimit = readNumber(block, 8, "lower limit");
    object.upperLimit = readNumber(block, 9, "upper limit");
    object.name = store.own(name);
    object.longIdentifier = store.own(longIdentifier);
    return object;
}

}  // namespace lm::a2l
