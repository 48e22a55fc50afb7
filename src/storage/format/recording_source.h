// Where the samples of a recording came from: the beginnings of its "source", and the bus that they mean.
//
// Threads: constants and a pure function. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <string_view>

namespace lm::storage {

/// The place follows behind a blank: "XCP on CAN can0", "XCP on UDP 192.168.0.7:5555", "XCP on serial
/// /dev/ttyACM0".
inline constexpr std::string_view kCanSource = "XCP on CAN";
inline constexpr std::string_view kUdpSource = "XCP on UDP";
inline constexpr std::string_view kSerialSource = "XCP on serial";

enum class BusKind : std::uint8_t { other = 0, can = 1, ethernet = 2 };

inline BusKind busKindOf(std::string_view source) {
    if (source.starts_with(kCanSource)) return BusKind::can;
    return source.starts_with(kUdpSource) ? BusKind::ethernet : BusKind::other;
}

}  // namespace lm::storage
