// Rules of A2L on which tools do not agree: each stands in one place of the code, and an object says on which
// of them it rests.
//
// Threads: pure functions. Lifetime: texts are static.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace lm::a2l {

enum class Assumption : std::uint8_t {
    byteOrder,          ///< the file states none
    axisByteOrder,      ///< the axis states none and the object has one of its own
    firstEntryUnmoved,  ///< the first entry lies at an address that its border would move
    naturalBorder,      ///< an entry behind others has no stated border
    positionGap,        ///< positions with a hole
    borderInArray,      ///< a border above the size of an array's values
    alternateBorder,    ///< ALTERNATE_WITH_x of values of several sizes
    alternateUnmoved,   ///< such values begin beside their border
    staticStride,       ///< rows of a STATIC_RECORD_LAYOUT keep their distance
    staticOffsets,      ///< STATIC_ADDRESS_OFFSETS
    decreasingPairs,    ///< INDEX_DECR of an axis turns the values too
    firstDifference,    ///< DEPOSIT DIFFERENCE
    pointerBorder,      ///< where a pointer behind others lies
    nearPointer,        ///< ECU_CALIBRATION_OFFSET is added to a short pointer
    columnDirection,    ///< COLUMN_DIR with more than two numbers
    elementOrder,       ///< the first number of MATRIX_DIM is X
    layoutNotGiven,     ///< a measurement of several dimensions without LAYOUT
    rescaleCount,       ///< how many values belong to a RES_AXIS
    textEnd,            ///< a zero ends a text
    textEncoding,       ///< the text states no ENCODING
    textSize,           ///< ENCODING UTF16 or UTF32
    defaultLayout,      ///< the object's layout is missing, that of MOD_COMMON is used
    pointerToArray,     ///< a part of a structure with MATRIX_DIM and a pointer type
    overwriteBelow,     ///< OVERWRITE of a part that is deeper than one component
    count,
};

/// What is taken for true, as a sentence without a full stop.
std::string_view assumptionText(Assumption assumption);

/// A set of them.
class Assumptions {
  public:
    void add(Assumption assumption) { bits_ |= bit(assumption); }
    void add(const Assumptions& others) { bits_ |= others.bits_; }
    bool has(Assumption assumption) const { return (bits_ & bit(assumption)) != 0; }
    std::vector<Assumption> list() const;

  private:
    static std::uint32_t bit(Assumption assumption) {
        return std::uint32_t{1} << static_cast<unsigned>(assumption);
    }
    std::uint32_t bits_ = 0;
};

}  // namespace lm::a2l
