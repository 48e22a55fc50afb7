// Blocks of an MDF 4.10 file as bytes in memory, with the links between them.
//
// Threads: one at a time. Lifetime: owns its bytes.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"

namespace lm::exporter {

/// The data section of a block, field after field, little-endian.
class Mf4Fields {
  public:
    template <std::unsigned_integral T>
    Mf4Fields& put(T value) {
        bytes_.resize(bytes_.size() + sizeof(T));
        writeLittle(&bytes_[bytes_.size() - sizeof(T)], value);
        return *this;
    }
    Mf4Fields& put(double value);
    Mf4Fields& zeros(std::size_t count);
    /// The first `width` bytes of a text, filled up with `fill`.
    Mf4Fields& text(std::string_view text, std::size_t width, char fill);

    const std::vector<std::uint8_t>& bytes() const { return bytes_; }

  private:
    std::vector<std::uint8_t> bytes_;
};

/// Bytes of a block in front of its links.
inline constexpr std::uint64_t kMf4HeaderSize = 24;

/// The header and the links of a block, whose data section has `dataSize` bytes.
std::vector<std::uint8_t> mf4Head(std::string_view id, const std::vector<std::uint64_t>& links,
                                  std::uint64_t dataSize);

/// Text as XML character data: markup escaped, characters that XML does not allow replaced by U+FFFD.
std::string xmlText(std::string_view text);

class Mf4Blocks {
  public:
    using Link = std::uint64_t;  ///< the place of a block in the file, 0: none

    /// Blocks that stand at `base` (a multiple of 8) of the file and behind.
    explicit Mf4Blocks(std::uint64_t base) : base_(base) {}

    /// Bytes without a block header, for the identification at the start of a file.
    void raw(const Mf4Fields& fields);
    /// Appends a block of the two-letter kind `id`.
    Link add(std::string_view id, const std::vector<Link>& links, const Mf4Fields& data);
    /// A TX block; equal texts share one.
    Link text(std::string_view text);
    /// An MD block <ROOT xmlns=...>INNER</ROOT>; equal ones share one.
    Link comment(std::string_view root, std::string_view inner);

    /// Sets the link `index` of a block that add() returned.
    void setLink(Link block, std::size_t index, Link target);

    const std::vector<std::uint8_t>& bytes() const { return bytes_; }
    /// Where the next block will stand.
    Link end() const { return base_ + bytes_.size(); }

  private:
    Link pooled(std::string_view id, std::string text);

    std::uint64_t base_;
    std::vector<std::uint8_t> bytes_;  ///< always a multiple of 8
    std::map<std::string, Link, std::less<>> pool_;
};

/// The place in the file of the link `index` of a block.
inline std::uint64_t mf4LinkPlace(Mf4Blocks::Link block, std::size_t index) {
    return block + kMf4HeaderSize + 8 * index;
}

}  // namespace lm::exporter
