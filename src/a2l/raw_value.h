// Raw values in and out of ECU bytes by data type, byte order and bit mask.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <cstddef>
#include <cstdint>
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

/// decodeRaw() with the choice by type, byte order and mask made beforehand: for loops over many values of
/// one signal. Call it with the coding that it was chosen for.
using RawDecodeFunction = double (*)(const std::uint8_t*, const RawCoding&);
RawDecodeFunction rawDecoder(const RawCoding& coding);

/// Writes one element. With a bit mask the buffer holds the current contents, whose other bits stay.
/// Errors (invalidArgument, buffer untouched): "buffer too small", "value is not a number",
/// "raw value V outside the range of TYPE".
Result<void> encodeRaw(double value, const RawCoding& coding, std::span<std::uint8_t> buffer);

}  // namespace lm::a2l
