// RECORD_LAYOUT and AXIS_DESCR as an A2L file states them: in which order and form the parts of an object lie
// in memory, and where the points of its axes come from.
//
// Threads and lifetime: plain records of a Description; their texts live as long as it does.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "core/bytes.h"
#include "value/data_type.h"

namespace lm::a2l {

/// X, Y, Z, 4, 5.
constexpr std::size_t kMostAxes = 5;

enum class IndexMode : std::uint8_t {
    rowDir,
    columnDir,
    alternateWithX,
    alternateWithY,
    alternateCurves,
    unknown,
};

/// What lies at a place: the data, or a pointer of 1, 2, 4 or 8 bytes to it.
enum class AddressType : std::uint8_t { direct, pbyte, pword, plong, plonglong };

constexpr bool isPointer(AddressType type) {
    return type != AddressType::direct;
}
/// Bytes of the pointer; 0 for the data itself.
constexpr std::size_t pointerSize(AddressType type) {
    constexpr std::uint8_t kSizes[] = {0, 1, 2, 4, 8};
    return kSizes[static_cast<std::size_t>(type)];
}

/// Borders of data types, in the order of the keywords: byte, word, long, 64-bit integer, float16, float32,
/// float64. 0: not given.
using Alignments = std::array<std::uint32_t, 7>;
/// The place of a type's border in them.
constexpr std::size_t alignmentClass(value::DataType type) {
    constexpr std::uint8_t kClasses[] = {0, 0, 1, 1, 2, 2, 3, 3, 4, 5, 6};
    return kClasses[static_cast<std::size_t>(type)];
}

/// RECORD_LAYOUT.
struct RecordLayout {
    enum class Field : std::uint8_t {
        functionValues,  ///< FNC_VALUES
        axisPoints,      ///< AXIS_PTS_x
        axisRescale,     ///< AXIS_RESCALE_x
        pointCount,      ///< NO_AXIS_PTS_x
        rescaleCount,    ///< NO_RESCALE_x
        offset,          ///< OFFSET_x
        shift,           ///< SHIFT_OP_x
        distance,        ///< DIST_OP_x
        skipped,  ///< takes memory and means nothing here: RESERVED, IDENTIFICATION, RIP_ADDR, SRC_ADDR
    };
    struct Entry {
        Field field = Field::skipped;
        std::uint8_t axis = 0;  ///< 0 for X
        std::uint16_t position = 0;
        value::DataType dataType = value::DataType::ubyte;
        IndexMode indexMode = IndexMode::rowDir;  ///< of FNC_VALUES
        bool decreasing = false;                  ///< INDEX_DECR
        AddressType addressType = AddressType::direct;
        std::uint32_t maxPairs = 0;  ///< of AXIS_RESCALE_x
    };

    std::string_view name;
    std::vector<Entry> entries;                          ///< by position, else in the order of the file
    std::array<std::uint32_t, kMostAxes> fixedCounts{};  ///< FIX_NO_AXIS_PTS_x; 0: not given
    Alignments alignments{};
    bool staticRecord = false;   ///< STATIC_RECORD_LAYOUT
    bool staticOffsets = false;  ///< STATIC_ADDRESS_OFFSETS

    /// The first entry of that kind, or nullptr.
    const Entry* find(Field field, std::size_t axis = 0) const;
};

enum class AxisKind : std::uint8_t { standard, fixed, common, rescale, curve };
enum class Monotony : std::uint8_t {
    none,
    increase,
    decrease,
    strictIncrease,
    strictDecrease,
    monotonous,
    strictMonotonous,
};
enum class Deposit : std::uint8_t { notGiven, absolute, difference };

/// What a fixed axis is computed from: offset + i * step for i from 0, or the listed values.
struct FixedAxis {
    bool given = false;
    double offset = 0;
    double step = 0;
    std::uint32_t count = 0;  ///< of all three forms
    std::vector<double> values;
};

/// AXIS_DESCR of a characteristic.
struct AxisDescription {
    AxisKind kind = AxisKind::standard;
    Monotony monotony = Monotony::none;
    Deposit deposit = Deposit::notGiven;
    bool readOnly = false;
    bool wordSwapped = false;  ///< a BYTE_ORDER that swaps words, which nothing here reads
    std::optional<ByteOrder> byteOrder;
    std::uint32_t maxAxisPoints = 0;
    std::string_view inputQuantity;
    std::string_view conversion;
    double lowerLimit = 0;
    double upperLimit = 0;
    std::string_view reference;  ///< AXIS_PTS_REF or CURVE_AXIS_REF, may be empty
    std::string_view format;
    std::optional<std::string_view> physUnit;
    FixedAxis fixed;
};

/// "STD_AXIS", ...
std::string_view axisKindName(AxisKind kind);
/// "ROW_DIR", ...; "DIRECT", ...
std::string_view indexModeName(IndexMode mode);
std::string_view addressTypeName(AddressType type);
/// "MON_INCREASE", ...; "NOT_MON" for none.
std::string_view monotonyName(Monotony monotony);
/// None for a word that is not known.
Monotony monotonyFromName(std::string_view name);

}  // namespace lm::a2l
