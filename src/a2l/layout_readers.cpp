#include "a2l/layout_readers.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <string>

namespace lm::a2l {
namespace {

using Field = RecordLayout::Field;

/// A word of a closed set to its number; "unknown WHAT 'WORD'".
template <typename Enum, std::size_t N>
Enum readWord(const Block& block, std::size_t index, const std::array<std::string_view, N>& words,
              std::string_view label, std::string_view what) {
    const std::string_view word = readIdentifier(block, index, label);
    const auto found = std::find(words.begin(), words.end(), word);
    if (found == words.end())
        throw BlockError("unknown " + std::string(what) + " '" + std::string(word) + "'");
    return static_cast<Enum>(found - words.begin());
}

constexpr std::array<std::string_view, kMostAxes> kAxisEndings = {"_X", "_Y", "_Z", "_4", "_5"};

/// What follows the position and the data type of an entry.
enum class Tail : std::uint8_t { nothing, indexAndAddress, pairs, fillerOnly };

struct EntryKeyword {
    std::string_view stem;
    bool hasAxis;
    Field field;
    Tail tail;
    std::size_t values;
};

constexpr std::array kEntryKeywords = {
    EntryKeyword{"FNC_VALUES", false, Field::functionValues, Tail::indexAndAddress, 4},
    EntryKeyword{"AXIS_PTS", true, Field::axisPoints, Tail::indexAndAddress, 4},
    EntryKeyword{"NO_AXIS_PTS", true, Field::pointCount, Tail::nothing, 2},
    EntryKeyword{"NO_RESCALE", true, Field::rescaleCount, Tail::nothing, 2},
    EntryKeyword{"AXIS_RESCALE", true, Field::axisRescale, Tail::pairs, 5},
    EntryKeyword{"OFFSET", true, Field::offset, Tail::nothing, 2},
    EntryKeyword{"SHIFT_OP", true, Field::shift, Tail::nothing, 2},
    EntryKeyword{"DIST_OP", true, Field::distance, Tail::nothing, 2},
    EntryKeyword{"RIP_ADDR_W", false, Field::skipped, Tail::nothing, 2},
    EntryKeyword{"RIP_ADDR", true, Field::skipped, Tail::nothing, 2},
    EntryKeyword{"SRC_ADDR", true, Field::skipped, Tail::nothing, 2},
    EntryKeyword{"IDENTIFICATION", false, Field::skipped, Tail::nothing, 2},
    EntryKeyword{"RESERVED", false, Field::skipped, Tail::fillerOnly, 2},
};

/// Which axis a keyword STEM_x means; none for another keyword.
std::optional<std::uint8_t> axisOf(std::string_view word, std::string_view stem) {
    if (!word.starts_with(stem)) return std::nullopt;
    const auto found = std::find(kAxisEndings.begin(), kAxisEndings.end(), word.substr(stem.size()));
    if (found == kAxisEndings.end()) return std::nullopt;
    return static_cast<std::uint8_t>(found - kAxisEndings.begin());
}

IndexMode readIndexMode(const Block& block, std::size_t index) {
    constexpr std::array<std::string_view, 5> kWords = {"ROW_DIR", "COLUMN_DIR", "ALTERNATE_WITH_X",
                                                        "ALTERNATE_WITH_Y", "ALTERNATE_CURVES"};
    const std::string_view word = readIdentifier(block, index, "index mode");
    // Scalars are read all the same.
    return static_cast<IndexMode>(std::find(kWords.begin(), kWords.end(), word) - kWords.begin());
}

void readTail(const Block& block, std::size_t value, Tail tail, RecordLayout::Entry& entry) {
    constexpr std::array<std::string_view, 3> kFillers = {"BYTE", "WORD", "LONG"};
    constexpr std::array<value::DataType, 3> kFillerTypes = {value::DataType::ubyte, value::DataType::uword,
                                                             value::DataType::ulong};
    if (tail == Tail::fillerOnly) {
        const auto size = readWord<std::size_t>(block, value + 1, kFillers, "data size", "data size");
        entry.dataType = kFillerTypes[size];
        return;
    }
    entry.dataType = readDataType(block, value + 1);
    if (tail == Tail::nothing) return;
    std::size_t next = value + 2;
    if (tail == Tail::pairs) entry.maxPairs = readCount<std::uint32_t>(block, next++, "number of pairs");
    if (entry.field == Field::functionValues) {
        entry.indexMode = readIndexMode(block, next);
    } else {
        constexpr std::array<std::string_view, 2> kDirections = {"INDEX_INCR", "INDEX_DECR"};
        entry.decreasing =
            readWord<std::size_t>(block, next, kDirections, "index direction", "index direction") == 1;
    }
    entry.addressType = readAddressType(block, next + 1, "address type");
}

/// Reads the entry at a token; how many values it has, 0 when it is none.
std::size_t readEntry(const Block& block, std::size_t i, RecordLayout& layout) {
    const std::string_view word = block.tokens()[i].text;
    for (const EntryKeyword& keyword : kEntryKeywords) {
        std::optional<std::uint8_t> axis;
        if (keyword.hasAxis) {
            axis = axisOf(word, keyword.stem);
        } else if (word == keyword.stem) {
            axis = 0;
        }
        if (!axis) continue;
        RecordLayout::Entry entry;
        entry.field = keyword.field;
        entry.axis = *axis;
        entry.position = readCount<std::uint16_t>(block, i + 1, "position");
        readTail(block, i + 1, keyword.tail, entry);
        if (entry.field == Field::skipped || layout.find(entry.field, entry.axis) == nullptr)
            layout.entries.push_back(entry);
        return keyword.values;
    }
    return 0;
}

FixedAxis readFixedAxis(const Block& block, std::size_t value, bool isShift) {
    const std::string_view label = isShift ? "FIX_AXIS_PAR" : "FIX_AXIS_PAR_DIST";
    FixedAxis fixed;
    fixed.given = true;
    fixed.offset = readNumber(block, value, label);
    const double step = readNumber(block, value + 1, label);
    fixed.step = isShift ? std::exp2(step) : step;
    fixed.count = readCount<std::uint32_t>(block, value + 2, label);
    return fixed;
}

FixedAxis readFixedList(const Block& block) {
    FixedAxis fixed;
    fixed.given = true;
    for (std::size_t i = 0; i < block.tokens().size(); ++i)
        fixed.values.push_back(readNumber(block, i, "FIX_AXIS_PAR_LIST"));
    fixed.count = static_cast<std::uint32_t>(fixed.values.size());
    return fixed;
}

constexpr std::array<std::string_view, 5> kAxisKinds = {"STD_AXIS", "FIX_AXIS", "COM_AXIS", "RES_AXIS",
                                                        "CURVE_AXIS"};
constexpr std::array<std::string_view, 7> kMonotonies = {"NOT_MON",         "MON_INCREASE",    "MON_DECREASE",
                                                         "STRICT_INCREASE", "STRICT_DECREASE", "MONOTONOUS",
                                                         "STRICT_MON"};

enum class LayoutWord : std::uint8_t {
    other,
    reference,
    byteOrder,
    deposit,
    monotony,
    physUnit,
    format,
    fixShift,
    fixDistance,
    readOnly,
};
using LayoutKeyword = OptionalKeyword<LayoutWord>;

constexpr std::array kAxisKeywords = {
    LayoutKeyword{"AXIS_PTS_REF", 1, LayoutWord::reference},
    LayoutKeyword{"CURVE_AXIS_REF", 1, LayoutWord::reference},
    LayoutKeyword{"BYTE_ORDER", 1, LayoutWord::byteOrder},
    LayoutKeyword{"DEPOSIT", 1, LayoutWord::deposit},
    LayoutKeyword{"MONOTONY", 1, LayoutWord::monotony},
    LayoutKeyword{"PHYS_UNIT", 1, LayoutWord::physUnit},
    LayoutKeyword{"FORMAT", 1, LayoutWord::format},
    LayoutKeyword{"FIX_AXIS_PAR", 3, LayoutWord::fixShift},
    LayoutKeyword{"FIX_AXIS_PAR_DIST", 3, LayoutWord::fixDistance},
    LayoutKeyword{"READ_ONLY", 0, LayoutWord::readOnly},
    LayoutKeyword{"EXTENDED_LIMITS", 2, LayoutWord::other},
    LayoutKeyword{"MAX_GRAD", 1, LayoutWord::other},
    LayoutKeyword{"STEP_SIZE", 1, LayoutWord::other},
};

void readAxisOption(AxisDescription& axis, LayoutWord word, const Block& block, std::size_t value,
                    ModelStore& store) {
    switch (word) {
        case LayoutWord::reference:
            axis.reference = store.common(readIdentifier(block, value, "AXIS_PTS_REF"));
            break;
        case LayoutWord::byteOrder:
            readObjectByteOrder(axis, block, value);
            break;
        case LayoutWord::deposit:
            axis.deposit = readDeposit(block, value);
            break;
        case LayoutWord::monotony:
            axis.monotony = readMonotony(block, value);
            break;
        case LayoutWord::physUnit:
            axis.physUnit = store.common(readString(block, value, "PHYS_UNIT"));
            break;
        case LayoutWord::format:
            axis.format = store.common(readString(block, value, "FORMAT"));
            break;
        case LayoutWord::fixShift:
        case LayoutWord::fixDistance:
            axis.fixed = readFixedAxis(block, value, word == LayoutWord::fixShift);
            break;
        case LayoutWord::readOnly:
            axis.readOnly = true;
            break;
        case LayoutWord::other:
            break;
    }
}

}  // namespace

bool readAlignment(const Block& block, std::size_t index, Alignments& alignments) {
    constexpr std::string_view kStem = "ALIGNMENT_";
    constexpr std::array<std::string_view, 7> kClasses = {
        "BYTE", "WORD", "LONG", "INT64", "FLOAT16_IEEE", "FLOAT32_IEEE", "FLOAT64_IEEE"};
    const std::string_view word = block.tokens()[index].text;
    if (!word.starts_with(kStem)) return false;
    const auto found = std::find(kClasses.begin(), kClasses.end(), word.substr(kStem.size()));
    if (found == kClasses.end()) return false;
    // A border of 0 is none.
    alignments[static_cast<std::size_t>(found - kClasses.begin())] =
        std::max(readCount<std::uint16_t>(block, index + 1, word), std::uint16_t{1});
    return true;
}

AddressType readAddressType(const Block& block, std::size_t index, std::string_view label) {
    constexpr std::array<std::string_view, 5> kWords = {"DIRECT", "PBYTE", "PWORD", "PLONG", "PLONGLONG"};
    return readWord<AddressType>(block, index, kWords, label, "address type");
}

Deposit readDeposit(const Block& block, std::size_t index) {
    constexpr std::array<std::string_view, 2> kWords = {"ABSOLUTE", "DIFFERENCE"};
    const auto word = readWord<std::size_t>(block, index, kWords, "DEPOSIT", "deposit");
    return word == 0 ? Deposit::absolute : Deposit::difference;
}

Monotony readMonotony(const Block& block, std::size_t index) {
    return readWord<Monotony>(block, index, kMonotonies, "MONOTONY", "monotony");
}

bool isWordSwapped(const Block& block, std::size_t index) {
    const std::string_view word = readIdentifier(block, index, "BYTE_ORDER");
    return word == "MSB_FIRST_MSW_LAST" || word == "MSB_LAST_MSW_FIRST";
}

std::string_view axisKindName(AxisKind kind) {
    return kAxisKinds[static_cast<std::size_t>(kind)];
}

std::string_view indexModeName(IndexMode mode) {
    constexpr std::array<std::string_view, 6> kNames = {
        "ROW_DIR", "COLUMN_DIR", "ALTERNATE_WITH_X", "ALTERNATE_WITH_Y", "ALTERNATE_CURVES", "unknown"};
    return kNames[static_cast<std::size_t>(mode)];
}

std::string_view addressTypeName(AddressType type) {
    constexpr std::array<std::string_view, 5> kNames = {"DIRECT", "PBYTE", "PWORD", "PLONG", "PLONGLONG"};
    return kNames[static_cast<std::size_t>(type)];
}

std::string_view monotonyName(Monotony monotony) {
    return kMonotonies[static_cast<std::size_t>(monotony)];
}

Monotony monotonyFromName(std::string_view name) {
    const auto* const found = std::find(kMonotonies.begin(), kMonotonies.end(), name);
    return found == kMonotonies.end() ? Monotony::none : static_cast<Monotony>(found - kMonotonies.begin());
}

RecordLayout readRecordLayout(const Block& block, ModelStore& store) {
    RecordLayout layout;
    const std::string_view name = readIdentifier(block, 0, "name");
    for (std::size_t i = 1; i < block.tokens().size(); ++i) {
        const Token& token = block.tokens()[i];
        if (token.kind != TokenKind::identifier) continue;
        const auto fixed = axisOf(token.text, "FIX_NO_AXIS_PTS");
        if (fixed) {
            layout.fixedCounts[*fixed] = readCount<std::uint32_t>(block, ++i, token.text);
        } else if (readAlignment(block, i, layout.alignments)) {
            ++i;
        } else if (token.text == "STATIC_RECORD_LAYOUT") {
            layout.staticRecord = true;
        } else if (token.text == "STATIC_ADDRESS_OFFSETS") {
            layout.staticOffsets = true;
        } else {
            i += readEntry(block, i, layout);
        }
    }
    std::stable_sort(layout.entries.begin(), layout.entries.end(),
                     [](const auto& a, const auto& b) { return a.position < b.position; });
    layout.name = store.common(name);
    return layout;
}

AxisDescription readAxisDescription(const Block& block, ModelStore& store) {
    constexpr std::size_t kPositional = 6;
    AxisDescription axis;
    axis.kind = readWord<AxisKind>(block, 0, kAxisKinds, "attribute", "axis attribute");
    axis.inputQuantity = store.common(readIdentifier(block, 1, "input quantity"));
    axis.conversion = store.common(readIdentifier(block, 2, "conversion"));
    axis.maxAxisPoints = readCount<std::uint32_t>(block, 3, "max axis points");
    axis.lowerLimit = readNumber(block, 4, "lower limit");
    axis.upperLimit = readNumber(block, 5, "upper limit");
    forEachOptional<LayoutWord>(block, kPositional, kAxisKeywords, [&](LayoutWord word, std::size_t value) {
        readAxisOption(axis, word, block, value, store);
    });
    if (const Block* list = block.child("FIX_AXIS_PAR_LIST")) axis.fixed = readFixedList(*list);
    return axis;
}

const RecordLayout::Entry* RecordLayout::find(Field field, std::size_t axis) const {
    for (const Entry& entry : entries)
        if (entry.field == field && entry.axis == axis) return &entry;
    return nullptr;
}

}  // namespace lm::a2l
