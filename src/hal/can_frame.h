// The CAN frame: one value type for classic and FD frames, its rules, and the one-line text notation in which
// a user types a frame and the program prints one ("123#11.22 33", "1FFFFFFF#R4", "123##1AABB").
//
// Threads: a plain value and pure functions. Lifetime: owns everything, copied freely.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/result.h"

namespace lm::hal {

struct CanFrame {
    static constexpr std::size_t kMaxData = 64;
    static constexpr std::size_t kMaxClassicData = 8;
    static constexpr std::uint32_t kExtendedIdMask = 0x1FFFFFFF;
    static constexpr std::uint32_t kStandardIdMask = 0x7FF;

    enum Flag : std::uint8_t {
        extended = 0x01,  ///< 29-bit identifier
        fd = 0x02,        ///< CAN FD frame
        brs = 0x04,       ///< bit-rate switch, CAN FD only
        esi = 0x08,       ///< error state indicator, CAN FD only
        remote = 0x10,    ///< remote transmission request, classic only
    };

    std::int64_t timestampNs = 0;    ///< receive time, steady clock; 0 for frames built for sending
    std::int64_t hwTimestampNs = 0;  ///< stamped by the controller, 0 when it gives none
    std::uint32_t id = 0;            ///< without any flag bits
    std::uint8_t length = 0;         ///< payload bytes (not the DLC code)
    std::uint8_t flags = 0;          ///< of Flag
    std::array<std::uint8_t, kMaxData> data{};  ///< zero beyond `length`

    bool has(Flag flag) const { return (flags & flag) != 0; }
    void set(Flag flag) { flags = static_cast<std::uint8_t>(flags | flag); }
};

/// The smallest DLC code whose length is at least `length`; 15 above 64.
std::uint8_t lengthToDlc(std::size_t length);

/// The smallest length of a CAN FD frame that is at least `length`; 64 above 64.
std::uint8_t roundUpCanFdLength(std::size_t length);

/// Errors (invalidArgument): "CAN identifier out of range", "invalid CAN FD payload length", "CAN FD does not
/// support remote frames", "classic CAN payload longer than 8 bytes", "BRS/ESI flags require a CAN FD frame".
Result<void> validate(const CanFrame& frame);

/// One frame without surrounding blanks: 3 or 8 hex digits of the identifier, then "#" and the payload, "#R"
/// and a length, or "##", the flags digit (1: brs, 2: esi) and the payload, which is padded with zeros to a
/// valid length. Error: invalidArgument "invalid CAN frame 'TEXT': " and the reason.
Result<CanFrame> parseCanFrame(std::string_view text);

/// The notation of a valid frame, in upper case and without separators between the bytes.
std::string formatCanFrame(const CanFrame& frame);

}  // namespace lm::hal
