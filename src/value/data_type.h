// The eleven scalar data types of A2L, their names and sizes.
//
// Threads: pure functions. Lifetime: names are static texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace lm::value {

enum class DataType : std::uint8_t {
    ubyte = 0,
    sbyte = 1,
    uword = 2,
    sword = 3,
    ulong = 4,
    slong = 5,
    uint64 = 6,
    int64 = 7,
    float16 = 8,
    float32 = 9,
    float64 = 10,
};

/// The A2L word: UBYTE, SBYTE, ..., A_UINT64, A_INT64, FLOAT16_IEEE, FLOAT32_IEEE, FLOAT64_IEEE.
std::string_view dataTypeName(DataType type);

/// The type of an A2L word (exact, case-sensitive).
std::optional<DataType> dataTypeFromName(std::string_view name);

/// Size of one element in bytes.
constexpr std::size_t dataTypeSize(DataType type) {
    constexpr std::uint8_t kSizes[] = {1, 1, 2, 2, 4, 4, 8, 8, 2, 4, 8};
    return kSizes[static_cast<std::size_t>(type)];
}

constexpr bool isFloat(DataType type) {
    return type >= DataType::float16;
}

/// True for the signed integer types.
constexpr bool isSigned(DataType type) {
    return !isFloat(type) && static_cast<std::uint8_t>(type) % 2 == 1;
}

}  // namespace lm::value
