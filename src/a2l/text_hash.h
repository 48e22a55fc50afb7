// The hash that the name tables share.
//
// Threads: pure function. Lifetime: keeps nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace lm::a2l {

/// Eight bytes per step: names are short and the tables large, so spread counts, not strength.
inline std::uint32_t hashText(std::string_view text) {
    constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;
    std::uint64_t hash = text.size() * kFactor;
    const auto mix = [&hash](std::uint64_t part) {
        hash = (hash ^ part) * kFactor;
        hash ^= hash >> 32U;
    };
    for (; text.size() >= sizeof(std::uint64_t); text.remove_prefix(sizeof(std::uint64_t))) {
        std::uint64_t part = 0;
        std::memcpy(&part, text.data(), sizeof(part));
        mix(part);
    }
    std::uint64_t rest = 0;
    for (const char c : text)
        rest = rest << 8U | static_cast<unsigned char>(c);
    mix(rest);
    return static_cast<std::uint32_t>(hash);
}

}  // namespace lm::a2l
