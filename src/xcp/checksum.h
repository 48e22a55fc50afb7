// The checksums of XCP, computed here: to compare files with what an ECU tells, and for ECUs that compute
// none.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "core/bytes.h"

namespace lm::xcp {

/// As the answer to BUILD_CHECKSUM names them.
enum class ChecksumType : std::uint8_t {
    add11 = 0x01,  ///< bytes into 8 bits
    add12 = 0x02,  ///< bytes into 16 bits
    add14 = 0x03,  ///< bytes into 32 bits
    add22 = 0x04,  ///< words into 16 bits
    add24 = 0x05,  ///< words into 32 bits
    add44 = 0x06,  ///< double words into 32 bits
    crc16 = 0x07,
    crc16Citt = 0x08,
    crc32 = 0x09,
    userDefined = 0xFF,  ///< by a library of the ECU's maker
};

/// "ADD_11" to "CRC_32", "USER_DEFINED"; "type 0xNN" is for the caller: empty for others.
std::string_view checksumTypeName(ChecksumType type);
/// How many bytes of the 32 bits that the ECU tells belong to the sum: 1, 2 or 4.
std::uint8_t checksumWidth(ChecksumType type);
/// The bytes as they follow each other in memory; the words of sums are in the ECU's byte order. Nothing for
/// a type that is not known, and for a length that is no multiple of the words.
std::optional<std::uint32_t> checksum(ChecksumType type, std::span<const std::uint8_t> bytes,
                                      ByteOrder order);

}  // namespace lm::xcp
