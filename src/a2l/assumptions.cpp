#include "a2l/assumptions.h"

#include <array>
#include <cstddef>

namespace lm::a2l {

std::string_view assumptionText(Assumption assumption) {
    constexpr std::array<std::string_view, static_cast<std::size_t>(Assumption::count)> kTexts = {
        "the file states no byte order, the low byte comes first",
        "an axis without BYTE_ORDER has that of MOD_COMMON, not that of its object",
        "the first part of a record is never moved to a border",
        "a type without a stated border is aligned to its size",
        "holes in the positions of a record reserve no memory",
        "values of an array touch, whatever their border",
        "values that alternate with points are aligned one by one",
        "values that alternate with points keep their distance where the first lies beside its border",
        "rows of a STATIC_RECORD_LAYOUT keep the distance that the largest size gives them",
        "with STATIC_ADDRESS_OFFSETS the parts keep their places, what is in them is packed",
        "INDEX_DECR turns the values together with their points",
        "of DEPOSIT DIFFERENCE the first point is stored as it is, the others as steps",
        "a pointer in a record has the border of an integer of its size",
        "ECU_CALIBRATION_OFFSET is added to pointers shorter than an address",
        "COLUMN_DIR swaps the first two of more than two numbers",
        "the first number of MATRIX_DIM is X",
        "without LAYOUT the first number of MATRIX_DIM runs fastest",
        "a RES_AXIS has as many points as AXIS_DESCR says",
        "a zero ends a text",
        "a text without ENCODING has one byte per character",
        "of UTF16 and UTF32 the size counts values of the layout, in the byte order of the object",
        "the layout that the object names is missing, S_REC_LAYOUT of MOD_COMMON takes its place",
        "an array behind a pointer has one pointer for all of it",
        "OVERWRITE names a part of a part by its components, with points between"};
    return kTexts[static_cast<std::size_t>(assumption)];
}

std::vector<Assumption> Assumptions::list() const {
    std::vector<Assumption> all;
    for (std::uint8_t i = 0; i < static_cast<std::uint8_t>(Assumption::count); ++i)
        if (const auto assumption = static_cast<Assumption>(i); has(assumption)) all.push_back(assumption);
    return all;
}

}  // namespace lm::a2l
