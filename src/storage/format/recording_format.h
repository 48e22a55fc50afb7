// The fixed parts of a recording's binary files: names, headers and block size (docs/recording-format.md).
//
// Threads: pure functions. Lifetime: results own their bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace lm::storage {

/// Records per entry of the time index, and entries of one level per entry of the next.
inline constexpr std::uint32_t kBlockLength = 16;
/// Bytes of an entry of the time index: two timestamps.
inline constexpr std::uint32_t kIndexEntrySize = 16;
/// Bytes in front of each record: its timestamp.
inline constexpr std::uint32_t kTimestampSize = 8;

inline constexpr std::size_t kHeaderSize = 32;
/// Bytes of the magic at the start of every header; the format version follows.
inline constexpr std::size_t kMagicSize = 8;
using FileHeader = std::array<std::uint8_t, kHeaderSize>;

FileHeader recordHeader(std::uint32_t recordSize);
FileHeader indexHeader();
FileHeader levelHeader(std::uint32_t level, std::uint32_t signalCount);

/// "g0000.rec", "g0000.tix", "g0000_L1.pyr"; levels count from 1.
std::string recordFileName(std::size_t group);
std::string indexFileName(std::size_t group);
std::string levelFileName(std::size_t group, std::uint32_t level);

}  // namespace lm::storage
