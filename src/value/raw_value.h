// Raw values in and out of ECU bytes by data type, byte order and bit mask.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>

#include "core/bytes.h"
#include "core/result.h"
#include "value/data_type.h"
#include "value/exact.h"

namespace lm::value {

/// How one scalar lies in memory.
struct RawCoding {
    DataType dataType = DataType::ubyte;
    ByteOrder byteOrder = ByteOrder::littleEndian;
    std::uint64_t bitMask = 0;  ///< 0: none; applies to integer types, bits beyond the type do not count
    /// What a BIT_OPERATION asks for beyond a mask: the field, brought down to bit 0 and sign-extended also
    /// in an unsigned type, goes this many places up. The mask is then not 0.
    std::uint8_t leftShift = 0;
    bool signExtend = false;

    /// A recording and the loops over its records know types, byte orders and masks only.
    bool hasBitOperation() const { return leftShift != 0 || signExtend; }
    /// A double does not hold all its values.
    bool isWide() const { return size() == sizeof(std::uint64_t) && !isFloat(dataType); }
    std::size_t size() const { return dataTypeSize(dataType); }
};

/// Whether decodeInteger() gives a negative number where its top bit is set.
inline bool hasSign(const RawCoding& coding) {
    return isSigned(coding.dataType) || coding.signExtend;
}

/// The bits of an integer type that hold the value: all, or those of its mask.
struct IntegerField {
    explicit IntegerField(const RawCoding& coding);

    std::uint64_t mask;  ///< in place; empty when a bit mask lies wholly beyond the type
    unsigned shift;
    unsigned width;
    std::uint64_t sign;  ///< the top bit of a field with a sign, brought down; else 0

    /// Of the integer as it stands in memory; with a sign in two's complement of 64 bits.
    std::uint64_t valueIn(std::uint64_t word) const { return (((word & mask) >> shift) ^ sign) - sign; }
};

/// Reads one element; `bytes` holds at least coding.size() bytes. 64-bit integers round to the nearest
/// double.
double decodeRaw(const std::uint8_t* bytes, const RawCoding& coding);

/// The value of an integer type in two's complement of 64 bits.
std::uint64_t decodeInteger(const std::uint8_t* bytes, const RawCoding& coding);

/// What decodeInteger() gave, as a number.
inline Exact exactInteger(std::uint64_t bits, const RawCoding& coding) {
    return {hasSign(coding) ? Int128{static_cast<std::int64_t>(bits)} : Int128{bits}};
}

inline IntegerField::IntegerField(const RawCoding& coding) {
    const std::uint64_t whole = ~std::uint64_t{0} >> (64U - 8U * coding.size());
    mask = coding.bitMask == 0 ? whole : coding.bitMask & whole;
    shift = mask == 0 ? 0U : static_cast<unsigned>(std::countr_zero(mask));
    width = static_cast<unsigned>(std::bit_width(mask >> shift));
    sign = hasSign(coding) ? std::bit_floor(mask) >> shift : 0;
}

/// The value of an IEEE half precision number.
inline double doubleFromHalf(std::uint16_t half) {
    const std::uint64_t sign = (half & std::uint64_t{0x8000}) << 48U;
    const std::uint64_t exponent = half >> 10U & 0x1FU;
    const std::uint64_t fraction = half & 0x3FFU;
    if (exponent == 0) {
        const double subnormal = static_cast<double>(fraction) * 0x1p-24;
        return sign != 0 ? -subnormal : subnormal;
    }
    if (exponent == 31) {
        if (fraction != 0) return std::numeric_limits<double>::quiet_NaN();
        return (sign != 0 ? -1 : 1) * std::numeric_limits<double>::infinity();
    }
    return std::bit_cast<double>(sign | (exponent + 1023U - 15U) << 52U | fraction << 42U);
}

/// decodeRaw() with the choice by type, byte order and mask made beforehand: for loops over many values of
/// one signal. Call it with the coding that it was chosen for.
using RawDecodeFunction = double (*)(const std::uint8_t*, const RawCoding&);
RawDecodeFunction rawDecoder(const RawCoding& coding);

/// Writes one element; an integer type takes the nearest whole number, halves away from zero. With a bit mask
/// the buffer holds the current contents, whose other bits stay. Errors (invalidArgument, buffer untouched):
/// "buffer too small", "value is not a number", "raw value V outside the range of TYPE".
Result<void> encodeRaw(double value, const RawCoding& coding, std::span<std::uint8_t> buffer);
/// The same for a whole number and an integer type.
Result<void> encodeInteger(Int128 value, const RawCoding& coding, std::span<std::uint8_t> buffer);

/// Refuses, in the words of encodeRaw(), what a float type could hold as infinity or NaN only.
Result<void> requireFinite(double value, DataType type);

/// The shortest text of a value of a float type that is stored as the same value again.
std::string shortestFloat(double value, DataType type);

}  // namespace lm::value
