// Packets on their way out of the slave, in the order in which they leave.
//
// Threads: one thread at a time. Lifetime: owns the bytes; spans into it die with the next append or clear.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace lm::sim {

class Outbox {
  public:
    struct Packet {
        std::size_t offset;
        std::size_t length;
        bool dto;
        std::uint32_t canId;  ///< of its own on CAN, 0: none
    };

    /// Room for one packet, all zero, to be filled before the next call.
    std::span<std::uint8_t> append(std::size_t length, bool dto, std::uint32_t canId = 0) {
        const std::size_t offset = bytes_.size();
        bytes_.resize(offset + length);
        packets_.push_back({offset, length, dto, canId});
        return {bytes_.data() + offset, length};
    }
    void append(std::span<const std::uint8_t> packet) {
        std::memcpy(append(packet.size(), false).data(), packet.data(), packet.size());
    }
    /// Takes back the packet appended last.
    void dropLast() {
        bytes_.resize(packets_.back().offset);
        packets_.pop_back();
    }
    void clear() {
        bytes_.clear();
        packets_.clear();
    }

    const std::vector<Packet>& packets() const { return packets_; }
    std::span<const std::uint8_t> bytes(const Packet& packet) const {
        return {bytes_.data() + packet.offset, packet.length};
    }
    std::size_t size() const { return bytes_.size(); }

  private:
    std::vector<std::uint8_t> bytes_;
    std::vector<Packet> packets_;
};

}  // namespace lm::sim
