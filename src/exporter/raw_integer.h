// Which raw values an integer type behind its mask can have.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <bit>
#include <cstdint>
#include <utility>

#include "value/raw_value.h"

namespace lm::exporter {

/// The bits of an integer type that belong to the value.
inline std::uint64_t valueBits(const value::RawCoding& coding) {
    const std::uint64_t whole = ~std::uint64_t{0} >> (64U - 8U * coding.size());
    return coding.bitMask == 0 ? whole : coding.bitMask & whole;
}

/// The least and the greatest value of an integer type behind its mask, as the nearest doubles.
inline std::pair<double, double> integerBounds(const value::RawCoding& coding) {
    const std::uint64_t bits = valueBits(coding);
    if (bits == 0) return {0, 0};
    const auto shift = static_cast<unsigned>(std::countr_zero(bits));
    if (!value::isSigned(coding.dataType)) return {0, static_cast<double>(bits >> shift)};
    const std::uint64_t sign = std::bit_floor(bits) >> shift;
    return {-static_cast<double>(sign), static_cast<double>(sign - 1)};
}

}  // namespace lm::exporter
