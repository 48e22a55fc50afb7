// BUILD_CHECKSUM of the simulated ECU, bit by bit.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "core/bytes.h"

namespace lm::sim {

/// The number of "add-11" to "crc-32" and "user".
std::optional<std::uint8_t> checksumNumber(std::string_view name);
/// As the A2L file spells it: "XCP_CRC_32".
std::string_view checksumWord(std::uint8_t number);
/// How many bytes a block is a multiple of.
std::uint8_t checksumStep(std::uint8_t number);
std::uint32_t checksumOf(std::uint8_t number, std::span<const std::uint8_t> bytes, ByteOrder order);

}  // namespace lm::sim
