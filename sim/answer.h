// The positive answer that the slave is making, and the fields of the command it answers.
//
// Threads: one thread at a time. Lifetime: owns its bytes; spans into it die with the next begin().
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "core/bytes.h"
#include "sim/protocol.h"

namespace lm::sim {

using Packet = std::span<const std::uint8_t>;

class Answer {
  public:
    explicit Answer(ByteOrder order) : order_(order) {}

    /// Starts an answer of that many bytes, all zero behind the packet identifier.
    std::uint8_t* begin(std::size_t size) {
        std::fill_n(bytes_.begin(), size, std::uint8_t{0});
        bytes_[0] = kResponse;
        size_ = size;
        return bytes_.data();
    }
    void setByte(std::size_t at, std::uint8_t value) { bytes_[at] = value; }
    void putWord(std::size_t at, std::size_t value) {
        writeBytes(&bytes_[at], static_cast<std::uint16_t>(value), order_);
    }
    void putDword(std::size_t at, std::uint32_t value) { writeBytes(&bytes_[at], value, order_); }
    Packet bytes() const { return {bytes_.data(), size_}; }

    std::uint16_t word(Packet packet, std::size_t at) const {
        return readBytes<std::uint16_t>(&packet[at], order_);
    }
    std::uint32_t dword(Packet packet, std::size_t at) const {
        return readBytes<std::uint32_t>(&packet[at], order_);
    }

  private:
    ByteOrder order_;
    std::array<std::uint8_t, 256> bytes_{};
    std::size_t size_ = 0;
};

}  // namespace lm::sim
