#include "xcp/serial_frame.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

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

/// Undoes the stuffing of a body that is too short for a full group. As above without a branch on the bytes:
/// the end of the loop is known beforehand, however the zeros lie.
std::size_t decodeShortCobs(const std::uint8_t* __restrict body, std::size_t length,
                            std::uint8_t* __restrict out) {
    std::int32_t toCode = 1 - body[0];  // minus the number of bytes before the next code
    for (std::size_t i = 1; i < length; ++i) {
        const std::int32_t isData = toCode >> 31;  // all bits or none
        out[i - 1] = static_cast<std::uint8_t>(body[i] & isData);
        toCode -= (body[i] - 1) | isData;
    }
    return toCode == 0 ? length - 1 : 0;
}

/// Undoes the stuffing of a body, at least one byte and none zero. From kLongestGroup bytes on, both buffers
/// have kShortGroup bytes to spare behind what they hold. Returns the decoded length, 0 when a group reaches
/// beyond the body.
std::size_t decodeCobs(const std::uint8_t* __restrict body, std::size_t length,
                       std::uint8_t* __restrict out) {
    if (length < kLongestGroup) return decodeShortCobs(body, length, out);
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
    if (length == 0) return static_cast<std::uint16_t>(crc);
    // The rest likewise: byte by byte, each look-up would wait for the one before.
    std::uint32_t rest = t[length - 1][data[0] ^ (crc >> 8U)];
    rest ^= length > 1 ? t[length - 2][data[1] ^ (crc & 0xFFU)] : (crc & 0xFFU) << 8U;
    for (std::size_t i = 2; i < length; ++i) {
        rest ^= t[length - 1 - i][data[i]];
    }
    return static_cast<std::uint16_t>(rest);
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
        if (!inside_ && *data == kDelimiter) {
            inside_ = true;
            ++data;
            continue;
        }
        const void* const found = std::memchr(data, kDelimiter, static_cast<std::size_t>(end - data));
        const auto* const delimiter = found == nullptr ? end : static_cast<const std::uint8_t*>(found);
        const auto before = static_cast<std::size_t>(delimiter - data);
        if (inside_ && bodyLength_ == 0 && before < kLongestGroup && delimiter < end) {
            closeFrame(data, before);  // without a copy: most frames come in one piece
            data = delimiter + 1;
            continue;
        }
        collect(data, before);
        data = delimiter;
        if (inside_ && delimiter < end) {
            closeFrame(body_.data(), std::exchange(bodyLength_, 0));
            ++data;
        }
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
void SerialFrameReceiver::closeFrame(const std::uint8_t* body, std::size_t bodyLength) {
    if (bodyLength == 0) return;
    const std::size_t length = decodeCobs(body, bodyLength, packet_.data());
    if (length > kCrcSize) {
        const std::size_t packetLength = length - kCrcSize;
        const std::uint16_t crc = serialCrc(packet_.data(), packetLength);
        // Byte by byte: a processor reads slowly in one piece what it has just written in two.
        if (packet_[packetLength] == (crc & 0xFFU) && packet_[packetLength + 1] == crc >> 8U) {
            inside_ = false;
            sink_.onFrame(packet_.data(), packetLength);
            return;
        }
    }
    sink_.onInvalidFrame();
    sink_.onPlainBytes(body, bodyLength);
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
