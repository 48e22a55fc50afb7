// Raw values in and out of ECU bytes by data type, byte order and bit mask.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include "a2l/data_type.h"
#include "core/bytes.h"
#include "core/result.h"

namespace lm::a2l {

/// How one scalar lies in memory.
struct RawCoding {
    DataType dataType = DataType::ubyte;
    ByteOrder byteOrder = ByteOrder::littleEndian;
    std::uint64_t bitMask = 0;  ///< 0: none; applies to integer types, bits beyond the type do not count

    std::size_t size() const { return dataTypeSize(dataType); }
};

/// Reads one element; `bytes` holds at least coding.size() bytes. 64-bit integers round to the nearest
/// double.
double decodeRaw(const std::uint8_t* bytes, const RawCoding& coding);

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

/// Writes one element. With a bit mask the buffer holds the current contents, whose other bits stay.
/// Errors (invalidArgument, buffer untouched): "buffer too small", "value is not a number",
/// "raw value V outside the range of TYPE".
Result<void> encodeRaw(double value, const RawCoding& coding, std::span<std::uint8_t> buffer);

/// Refuses, in the words of encodeRaw(), what a float type could hold as infinity or NaN only.
Result<void> requireFinite(double value, DataType type);

}  // namespace lm::a2l
