// XCP packets on a serial line that carries plain text as well, from the ECU's side.
//
// A packet travels as a zero byte, a body without zero bytes, and a zero byte. The body is the packet and its
// CRC-16 (least significant byte first), stuffed: each group is a code byte n and n - 1 bytes, and stands for
// those bytes and a zero; 255 has no zero behind it, and neither has the last group.
//
// Threads: one thread at a time. Lifetime: owns what it keeps; spans and views given to handlers die with the
// call.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lm::sim {

/// Polynomial 0x1021, start value 0xFFFF, most significant bit first.
std::uint16_t crc16(std::span<const std::uint8_t> bytes);

/// Appends the frame of a packet.
void appendFrame(std::span<const std::uint8_t> packet, std::vector<std::uint8_t>& to);

/// Takes the bytes of the line apart.
class FrameReader {
  public:
    using PacketHandler = std::function<void(std::span<const std::uint8_t>)>;
    using LineHandler = std::function<void(std::string_view)>;

    /// Calls the handlers in the order of the line: a packet per valid frame, a line (without CR and LF) per
    /// line feed of everything else.
    void feed(std::span<const std::uint8_t> bytes, const PacketHandler& onPacket, const LineHandler& onLine);
    /// Forgets what has begun.
    void reset();

  private:
    void closeFrame(const PacketHandler& onPacket, const LineHandler& onLine);
    void addText(std::uint8_t byte, const LineHandler& onLine);

    bool inFrame_ = false;
    std::vector<std::uint8_t> frame_;
    std::string line_;
};

}  // namespace lm::sim
