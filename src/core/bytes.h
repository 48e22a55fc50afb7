// Byte order in one place: integers in and out of byte buffers, and rounding helpers over them.
//
// Threads: pure functions. Lifetime: nothing is kept; the caller guarantees that the bytes are there.
// No other file shifts bytes or casts structures onto buffers.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace lm {

enum class ByteOrder : std::uint8_t {
    littleEndian,  ///< Intel, MSB_LAST
    bigEndian,     ///< Motorola, MSB_FIRST
};

template <std::unsigned_integral T>
constexpr T byteSwap(T value) {
    if constexpr (sizeof(T) == 1) {
        return value;
    } else if constexpr (sizeof(T) == 2) {
        return __builtin_bswap16(value);
    } else if constexpr (sizeof(T) == 4) {
        return __builtin_bswap32(value);
    } else {
        return __builtin_bswap64(value);
    }
}

/// Reads sizeof(T) bytes at `from` in the order given; needs no alignment.
template <std::unsigned_integral T>
T readBytes(const std::uint8_t* from, ByteOrder order) {
    T value;
    std::memcpy(&value, from, sizeof(T));
    const bool swap = (order == ByteOrder::bigEndian) == (std::endian::native == std::endian::little);
    return swap ? byteSwap(value) : value;
}

/// Writes sizeof(T) bytes at `to` in the order given; needs no alignment.
template <std::unsigned_integral T>
void writeBytes(std::uint8_t* to, T value, ByteOrder order) {
    const bool swap = (order == ByteOrder::bigEndian) == (std::endian::native == std::endian::little);
    if (swap) value = byteSwap(value);
    std::memcpy(to, &value, sizeof(T));
}

/// Little-endian shorthands for formats whose order is fixed (recording files, XCP on Ethernet headers,
/// DTOs).
template <std::unsigned_integral T>
T readLittle(const std::uint8_t* from) {
    return readBytes<T>(from, ByteOrder::littleEndian);
}
template <std::unsigned_integral T>
void writeLittle(std::uint8_t* to, T value) {
    writeBytes(to, value, ByteOrder::littleEndian);
}

/// Reads 1 to 8 bytes as an unsigned number.
inline std::uint64_t readSized(const std::uint8_t* from, std::size_t size, ByteOrder order) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
        const std::size_t at = order == ByteOrder::bigEndian ? i : size - 1 - i;
        value = (value << 8U) | from[at];
    }
    return value;
}

/// Writes the low `size` (1 to 8) bytes of a number.
inline void writeSized(std::uint8_t* to, std::uint64_t value, std::size_t size, ByteOrder order) {
    for (std::size_t i = 0; i < size; ++i) {
        const std::size_t at = order == ByteOrder::bigEndian ? size - 1 - i : i;
        to[at] = static_cast<std::uint8_t>(value >> (8U * i));
    }
}

}  // namespace lm
