// The eleven A2L data types: names, sizes, ranges, and their coding into memory.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/bytes.h"

namespace lm::sim {

enum class DataType : std::uint8_t {
    ubyte,
    sbyte,
    uword,
    sword,
    ulong,
    slong,
    uint64,
    int64,
    float16,
    float32,
    float64,
};

struct TypeInfo {
    std::string_view name;   ///< the A2L word
    std::string_view label;  ///< the part of an object's name that tells its type
    std::size_t size;        ///< bytes of one element
    bool isFloat;
    bool isSigned;
    double lower;  ///< smallest and largest value, as A2L limits
    double upper;
};

inline constexpr std::array<TypeInfo, 11> kTypes{{
    {"UBYTE", "ubyte", 1, false, false, 0, 255},
    {"SBYTE", "sbyte", 1, false, true, -128, 127},
    {"UWORD", "uword", 2, false, false, 0, 65535},
    {"SWORD", "sword", 2, false, true, -32768, 32767},
    {"ULONG", "ulong", 4, false, false, 0, 4294967295.0},
    {"SLONG", "slong", 4, false, true, -2147483648.0, 2147483647},
    {"A_UINT64", "uint64", 8, false, false, 0, 18446744073709551615.0},
    {"A_INT64", "int64", 8, false, true, -9223372036854775808.0, 9223372036854775807.0},
    {"FLOAT16_IEEE", "float16", 2, true, true, -65504, 65504},
    {"FLOAT32_IEEE", "float32", 4, true, true, -3.4e38, 3.4e38},
    {"FLOAT64_IEEE", "float64", 8, true, true, -1.7e308, 1.7e308},
}};

constexpr const TypeInfo& typeInfo(DataType type) {
    return kTypes[static_cast<std::size_t>(type)];
}

/// One raw value: `whole` counts for the integer types (two's complement), `real` for the float types.
struct RawValue {
    std::int64_t whole = 0;
    double real = 0;
};

/// Writes a raw value. Integers are cut to the width of the type or, with a mask other than 0, placed into
/// the bits of the mask while all other bits keep their contents. Floats are narrowed to the nearest value.
void storeRaw(std::uint8_t* to, DataType type, ByteOrder order, std::uint64_t mask, const RawValue& value);

/// The mirror image of storeRaw; a masked field of a signed type is extended from its own top bit.
RawValue loadRaw(const std::uint8_t* from, DataType type, ByteOrder order, std::uint64_t mask);

}  // namespace lm::sim
