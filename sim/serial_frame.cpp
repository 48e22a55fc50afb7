#include "sim/serial_frame.h"

#include <algorithm>
#include <optional>

namespace lm::sim {
namespace {

constexpr std::size_t kFullCode = 255;
constexpr std::size_t kLongestFrame = 70000;
constexpr std::size_t kLongestLine = 4096;

std::optional<std::vector<std::uint8_t>> unstuff(std::span<const std::uint8_t> body) {
    std::vector<std::uint8_t> bytes;
    while (!body.empty()) {
        const std::size_t code = body[0];
        if (code > body.size()) return std::nullopt;
        bytes.insert(bytes.end(), body.begin() + 1, body.begin() + static_cast<std::ptrdiff_t>(code));
        body = body.subspan(code);
        if (code != kFullCode && !body.empty()) bytes.push_back(0);
    }
    return bytes;
}

/// The packet of a body, empty when the body is not one.
std::vector<std::uint8_t> packetOf(std::span<const std::uint8_t> body) {
    auto bytes = unstuff(body);
    if (!bytes || bytes->size() < 3) return {};
    const unsigned sent = (*bytes)[bytes->size() - 2] + 256U * bytes->back();
    bytes->resize(bytes->size() - 2);
    if (crc16(*bytes) != sent) return {};
    return std::move(*bytes);
}

}  // namespace

std::uint16_t crc16(std::span<const std::uint8_t> bytes) {
    unsigned crc = 0xFFFF;
    for (const std::uint8_t byte : bytes) {
        for (unsigned mask = 0x80; mask != 0; mask >>= 1U) {
            const bool out = ((crc & 0x8000U) != 0) != ((byte & mask) != 0);
            crc = (crc << 1U) & 0xFFFFU;
            if (out) crc ^= 0x1021U;
        }
    }
    return static_cast<std::uint16_t>(crc);
}

void appendFrame(std::span<const std::uint8_t> packet, std::vector<std::uint8_t>& to) {
    std::vector<std::uint8_t> plain(packet.begin(), packet.end());
    const std::uint16_t crc = crc16(packet);
    plain.push_back(static_cast<std::uint8_t>(crc & 0xFFU));
    plain.push_back(static_cast<std::uint8_t>(crc >> 8U));

    to.push_back(0);
    std::size_t at = 0;
    for (;;) {
        const auto begin = plain.begin() + static_cast<std::ptrdiff_t>(at);
        const std::size_t run = static_cast<std::size_t>(std::find(begin, plain.end(), 0) - begin);
        const std::size_t length = std::min(run, kFullCode - 1);
        to.push_back(static_cast<std::uint8_t>(length + 1));
        to.insert(to.end(), begin, begin + static_cast<std::ptrdiff_t>(length));
        at += length;
        if (at == plain.size()) break;
        if (length + 1 < kFullCode) ++at;  // the zero that the code stands for
    }
    to.push_back(0);
}

void FrameReader::feed(std::span<const std::uint8_t> bytes, const PacketHandler& onPacket,
                       const LineHandler& onLine) {
    for (const std::uint8_t byte : bytes) {
        if (byte == 0) {
            if (inFrame_ && !frame_.empty()) {
                closeFrame(onPacket, onLine);
            } else {
                inFrame_ = true;
            }
        } else if (!inFrame_) {
            addText(byte, onLine);
        } else if (frame_.size() < kLongestFrame) {
            frame_.push_back(byte);
        }
    }
}

void FrameReader::closeFrame(const PacketHandler& onPacket, const LineHandler& onLine) {
    const std::vector<std::uint8_t> body = std::move(frame_);
    frame_.clear();
    const std::vector<std::uint8_t> packet = packetOf(body);
    if (!packet.empty()) {
        inFrame_ = false;
        onPacket(packet);
        return;
    }
    // Text that stood behind a stray zero; the delimiter may open the next frame.
    for (const std::uint8_t byte : body)
        addText(byte, onLine);
}

void FrameReader::addText(std::uint8_t byte, const LineHandler& onLine) {
    if (byte != '\n') {
        if (byte != '\r' && line_.size() < kLongestLine) line_ += static_cast<char>(byte);
        return;
    }
    const std::string line = std::move(line_);
    line_.clear();
    onLine(line);
}

void FrameReader::reset() {
    inFrame_ = false;
    frame_.clear();
    line_.clear();
}

}  // namespace lm::sim
