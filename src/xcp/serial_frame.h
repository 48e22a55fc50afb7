// XCP packets on a byte stream that they share with plain text: a frame is a zero byte, the packet and its
// CRC-16 in Consistent Overhead Byte Stuffing (so without a zero byte), and a zero byte.
//
// Threads: the functions are pure; a receiver belongs to one thread. Lifetime: the sink is borrowed and must
// outlive the receiver; bytes passed to it are valid during the call only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lm::xcp {

/// CRC-16/CCITT-FALSE: polynomial 0x1021, initial value 0xFFFF, not reflected, no final exclusive-or.
std::uint16_t serialCrc(const std::uint8_t* data, std::size_t length);

/// Replaces the contents of `frame` with the whole frame of a packet, both delimiters included. The CRC
/// travels low byte first behind the packet.
void encodeSerialFrame(const std::uint8_t* packet, std::size_t length, std::vector<std::uint8_t>& frame);

class ISerialFrameSink {
  public:
    virtual ~ISerialFrameSink() = default;

    /// The packet of a valid frame, without its CRC; at least one byte.
    virtual void onFrame(const std::uint8_t* packet, std::size_t length) = 0;

    /// Bytes that belong to no valid frame, as received; zero bytes never come.
    virtual void onPlainBytes(const std::uint8_t* data, std::size_t length) = 0;

    /// A frame was closed or cut off and is not valid; its bytes came, or will come, through onPlainBytes.
    virtual void onInvalidFrame() = 0;
};

/// Tells frames and plain bytes apart. Frames have no length of their own and may come in any pieces.
class SerialFrameReceiver {
  public:
    explicit SerialFrameReceiver(ISerialFrameSink& sink);

    void receive(const std::uint8_t* data, std::size_t length);

    /// The line was silent for longer than a frame may pause: an open frame is given up.
    void giveUpFrame();

    bool insideFrame() const { return inside_; }

    /// The body of the largest packet (65535 bytes and CRC) fits; what grows beyond is not a frame.
    static constexpr std::size_t kMaxBody = 65797;

  private:
    void collect(const std::uint8_t* data, std::size_t length);
    void closeFrame(const std::uint8_t* body, std::size_t bodyLength);
    void flushBody();

    ISerialFrameSink& sink_;
    bool inside_ = false;
    std::size_t bodyLength_ = 0;
    std::vector<std::uint8_t> body_;    ///< of the open frame, as received
    std::vector<std::uint8_t> packet_;  ///< room for the decoded body
};

}  // namespace lm::xcp
