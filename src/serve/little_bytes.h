// Little-endian numbers behind each other, as answers to the page hold them.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <string>

#include "core/bytes.h"

namespace lm::serve {

template <typename Unsigned>
void appendLittle(std::string& bytes, Unsigned number) {
    std::array<std::uint8_t, sizeof(Unsigned)> little{};
    writeLittle(little.data(), number);
    bytes.append(reinterpret_cast<const char*>(little.data()), little.size());
}

inline void appendDouble(std::string& bytes, double number) {
    appendLittle(bytes, std::bit_cast<std::uint64_t>(number));
}

inline void appendFloat(std::string& bytes, float number) {
    appendLittle(bytes, std::bit_cast<std::uint32_t>(number));
}

}  // namespace lm::serve
