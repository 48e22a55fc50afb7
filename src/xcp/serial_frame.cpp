#include "xcp/serial_frame.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "core/bytes.h"

namespace lm::xcp {
namespace {

constexpr std::uint8_t kDelimiter = 0;
constexpr std::size_t kCrcSize = 2;
constexpr std::size_t kShortGroup = 16;     ///< copied in one piece of fixed size
constexpr std::size_t kLongestGroup = 255;  ///< code byte included; no zero follows it

/// Tables for eight bytes at a time: the n-th carries a byte over n further bytes.
using CrcTables = std::array<std::array<std::uint16_t, 256>, 8>;

constexpr CrcTables makeCrcTables() {
    CrcTables tables{};
    for (std::size_t byte = 0; byte < 256; ++byte) {
        auto crc = static_cast<std::uint16_t>(byte << 8U);
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<std::uint16_t>((crc << 1U) ^ ((crc & 0x8000U) != 0 ? 0x1021U : 0U));
        }
        tables[0][byte] = crc;
    }
    for (std::size_t n = 1; n < tables.size(); ++n) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint16_t before = tables[n - 1][byte];
            tables[n][byte] = static_cast<std::uint16_t>((before << 8U) ^ tables[0][before >> 8U]);
        }
    }
    return tables;
}

constexpr CrcTables kCrcTables = makeCrcTables();

/// Takes bytes and puts COBS groups behind `out`, which has room for them.
class CobsWriter {
  public:
    explicit CobsWriter(std::uint8_t* out) : code_(out), end_(out + 1) {}

    /// Without a branch on the byte: in DTOs, zeros come as they like.
    void add(const std::uint8_t* data, std::size_t length) {
        std::uint8_t* out = end_;
        std::size_t group = static_cast<std::size_t>(end_ - code_);  // its length so far, code included
        for (std::size_t i = 0; i < length; ++i) {
            const std::uint8_t byte = data[i];
            *out = byte;
            *(out - group) = static_cast<std::uint8_t>(group);
            ++out;
            const std::size_t goesOn = std::size_t{0} - static_cast<std::size_t>(byte != 0);
            group = (group & goesOn) + 1;
            if (group == kLongestGroup) {
                *(out - group) = static_cast<std::uint8_t>(kLongestGroup);
                group = 1;
                ++out;
            }
        }
        end_ = out;
        code_ = out - group;
    }

    std::uint8_t* finish() {
        *code_ = static_cast<std::uint8_t>(end_ - code_);
        return end_;
    }

  private:
    std::uint8_t* code_;  ///< of the open group
    std::uint8_t* end_;
};

/// Undoes the stuffing of a body without zero bytes. Both buffers have kShortGroup bytes to spare behind what
/// they hold. Returns the decoded length, 0 when a group reaches beyond the body.
std::size_t decodeCobs(const std::uint8_t* __restrict body, std::size_t length,
                       std::uint8_t* __restrict out) {
    const std::uint8_t* const begin = out;
    const std::uint8_t* const end = body + length;
    std::size_t code = 0;
    while (body < end) {
        code = *body;
        // Copying more than the group is harmless: what follows overwrites it.
        std::memcpy(out, body + 1, kShortGroup);
        if (code > kShortGroup) {
            if (code > static_cast<std::size_t>(end - body)) return 0;
            std::memcpy(out, body + 1, code - 1);
        }
        body += code;
        out += code - 1;
        *out = 0;
        out += code != kLongestGroup ? 1 : 0;
    }
    if (body != end) return 0;
    // The zero of the last group is not there.
    return static_cast<std::size_t>(out - begin) - (code != kLongestGroup ? 1 : 0);
}

}  // namespace

std::uint16_t serialCrc(const std::uint8_t* data, std::size_t length) {
    std::uint32_t crc = 0xFFFF;
    const auto& t = kCrcTables;
    for (; length >= 8; data += 8, length -= 8) {
        crc = static_cast<std::uint32_t>(t[7][data[0] ^ (crc >> 8U)] ^ t[6][data[1] ^ (crc & 0xFFU)] ^
                                         t[5][data[2]] ^ t[4][data[3]] ^ t[3][data[4]] ^ t[2][data[5]] ^
                                         t[1][data[6]] ^ t[0][data[7]]);
    }
    for (; length > 0; ++data, --length) {
        crc = ((crc << 8U) & 0xFFFFU) ^ t[0][*data ^ (crc >> 8U)];
    }
    return static_cast<std::uint16_t>(crc);
}

void encodeSerialFrame(const std::uint8_t* packet, std::size_t length, std::vector<std::uint8_t>& frame) {
    // Delimiters and the first code byte, one more code byte for every 254 bytes without a zero, and slack.
    frame.resize(length + kCrcSize + (length + kCrcSize) / (kLongestGroup - 1) + 5);
    std::array<std::uint8_t, kCrcSize> crc{};
    writeLittle(crc.data(), serialCrc(packet, length));
    frame[0] = kDelimiter;
    CobsWriter writer(frame.data() + 1);
    writer.add(packet, length);
    writer.add(crc.data(), crc.size());
    std::uint8_t* const end = writer.finish();
    *end = kDelimiter;
    frame.resize(static_cast<std::size_t>(end + 1 - frame.data()));
}

SerialFrameReceiver::SerialFrameReceiver(ISerialFrameSink& sink)
    : sink_(sink), body_(kMaxBody + kShortGroup), packet_(kMaxBody + 2 * kShortGroup) {}

void SerialFrameReceiver::receive(const std::uint8_t* data, std::size_t length) {
    const std::uint8_t* const end = data + length;
    while (data < end) {
        const void* const found = std::memchr(data, kDelimiter, static_cast<std::size_t>(end - data));
        const auto* const delimiter = found == nullptr ? end : static_cast<const std::uint8_t*>(found);
        collect(data, static_cast<std::size_t>(delimiter - data));
        if (delimiter == end) return;
        if (inside_) {
            closeFrame();
        } else {
            inside_ = true;
        }
        data = delimiter + 1;
    }
}

void SerialFrameReceiver::collect(const std::uint8_t* data, std::size_t length) {
    if (inside_) {
        const std::size_t fitting = std::min(length, kMaxBody - bodyLength_);
        std::memcpy(body_.data() + bodyLength_, data, fitting);
        bodyLength_ += fitting;
        data += fitting;
        length -= fitting;
        if (length == 0) return;
        inside_ = false;
        flushBody();
    }
    if (length > 0) sink_.onPlainBytes(data, length);
}

/// What closes an invalid frame may well be what opened the next one, so the receiver stays inside; then a
/// stray zero costs one frame and not every frame that follows.
void SerialFrameReceiver::closeFrame() {
    if (bodyLength_ == 0) return;
    const std::size_t length = decodeCobs(body_.data(), bodyLength_, packet_.data());
    if (length > kCrcSize) {
        const std::size_t packetLength = length - kCrcSize;
        const std::uint16_t crc = serialCrc(packet_.data(), packetLength);
        // Byte by byte: a processor reads slowly in one piece what it has just written in two.
        if (packet_[packetLength] == (crc & 0xFFU) && packet_[packetLength + 1] == crc >> 8U) {
            inside_ = false;
            bodyLength_ = 0;
            sink_.onFrame(packet_.data(), packetLength);
            return;
        }
    }
    sink_.onInvalidFrame();
    flushBody();
}

void SerialFrameReceiver::giveUpFrame() {
    if (!inside_) return;
    inside_ = false;
    if (bodyLength_ == 0) return;
    sink_.onInvalidFrame();
    flushBody();
}

void SerialFrameReceiver::flushBody() {
    const std::size_t length = bodyLength_;
    bodyLength_ = 0;
    if (length > 0) sink_.onPlainBytes(body_.data(), length);
}

}  // namespace lm::xcp
