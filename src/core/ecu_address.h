// The address of a byte in ECU memory as XCP names it.
//
// Threads: plain value. Lifetime: owns nothing.
#pragma once

#include <compare>
#include <cstdint>

namespace lm::xcp {

struct Address {
    std::uint32_t address = 0;
    std::uint8_t extension = 0;  ///< XCP address extension (a memory space of the ECU)

    // clang-tidy 14 takes the generated comparison with 0 for a null pointer.
    auto operator<=>(const Address&) const = default;  // NOLINT(modernize-use-nullptr)
};

}  // namespace lm::xcp
