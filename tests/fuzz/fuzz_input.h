// What the fuzz targets share: an input taken apart piece by piece, and the check of what has to hold.
//
// A target is one LLVMFuzzerTestOneInput(). libFuzzer calls it with ever new inputs; the replay program calls
// it with the files of a corpus. Threads: one. Lifetime: an Input borrows the bytes.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace lm::fuzz {

using Bytes = std::vector<std::uint8_t>;

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : bytes_(data, size) {}

    bool empty() const { return bytes_.empty(); }

    /// Little-endian; bytes that are no longer there count as 0.
    template <std::unsigned_integral T>
    T take() {
        const auto part = takeBytes(sizeof(T));
        return part.empty() ? T{0}
                            : static_cast<T>(readSized(part.data(), part.size(), ByteOrder::littleEndian));
    }

    /// A number below `limit`.
    std::size_t takeBelow(std::size_t limit) {
        return (limit <= 256 ? take<std::uint8_t>() : take<std::uint32_t>()) % limit;
    }

    /// At most `count` bytes.
    std::span<const std::uint8_t> takeBytes(std::size_t count) {
        const auto part = bytes_.first(std::min(count, bytes_.size()));
        bytes_ = bytes_.subspan(part.size());
        return part;
    }

    /// Exactly `count` bytes, the missing ones 0.
    Bytes takeWhole(std::size_t count) {
        const auto part = takeBytes(count);
        Bytes bytes(part.begin(), part.end());
        bytes.resize(count);
        return bytes;
    }

    std::string_view rest() {
        const auto part = takeBytes(bytes_.size());
        return {reinterpret_cast<const char*>(part.data()), part.size()};
    }

  private:
    std::span<const std::uint8_t> bytes_;
};

/// Ends the process, and so reports the input, when something does not hold.
inline void require(bool holds, std::string_view what) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %.*s\n", static_cast<int>(what.size()), what.data());
    std::abort();
}

/// Equal as text: every NaN is one number, the zeros are two.
inline bool same(double a, double b) {
    return std::bit_cast<std::uint64_t>(a) == std::bit_cast<std::uint64_t>(b) || (a != a && b != b);
}

}  // namespace lm::fuzz
