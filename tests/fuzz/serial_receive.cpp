// Bytes of a serial line into frames and lines of text: the same however they are cut into pieces, nothing is
// invented, nothing but line ends is lost, and what was sent as a frame arrives.
#include <string>
#include <vector>

#include "core/text.h"
#include "fuzz_input.h"
#include "xcp/serial_frame.h"
#include "xcp/text_lines.h"

namespace lm::fuzz {
namespace {

struct Seen final : xcp::ISerialFrameSink {
    std::vector<Bytes> frames;
    Bytes plain;
    std::size_t invalid = 0;

    void onFrame(const std::uint8_t* packet, std::size_t length) override {
        require(length > 0, "a frame has contents");
        frames.emplace_back(packet, packet + length);
    }
    void onPlainBytes(const std::uint8_t* data, std::size_t length) override {
        require(length > 0, "plain bytes are some");
        plain.insert(plain.end(), data, data + length);
    }
    void onInvalidFrame() override { ++invalid; }
};

/// Each piece is a buffer of its own, so that a byte read beyond it shows.
void receive(xcp::SerialFrameReceiver& receiver, std::span<const std::uint8_t> bytes, std::size_t piece) {
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        const auto part = bytes.subspan(at, std::min(piece, bytes.size() - at));
        const Bytes copy(part.begin(), part.end());
        receiver.receive(copy.data(), copy.size());
    }
}

void checkText(const Bytes& plain, std::size_t piece) {
    std::size_t lines = 0;
    xcp::TextLines text([&lines](std::string_view line) {
        ++lines;
        require(isValidUtf8(line), "a line is UTF-8");
        for (const char c : line)
            require(c == '\t' || static_cast<unsigned char>(c) >= 0x20, "a line has no control characters");
        require(line.size() <= 4 * xcp::TextLines::kLongestPart, "a line is bounded");
    });
    xcp::TextLines::Clock::time_point now{};
    for (std::size_t at = 0; at < plain.size(); at += piece) {
        text.add(plain.data() + at, std::min(piece, plain.size() - at), now);
        now += std::chrono::milliseconds(plain[at]);
        text.handOnWhenSilent(now);
    }
    text.handOn();
    require(lines <= plain.size(), "a line has a cause");
}

/// Whatever the line held before: two frames behind one that was given up arrive.
void checkFrame(xcp::SerialFrameReceiver& receiver, Seen& seen, const Bytes& packet) {
    receiver.giveUpFrame();
    const std::size_t before = seen.frames.size();
    const std::size_t invalid = seen.invalid;
    Bytes frame;
    xcp::encodeSerialFrame(packet.data(), packet.size(), frame);
    receive(receiver, frame, frame.size());
    receive(receiver, frame, 1 + packet.size() / 2);
    require(seen.frames.size() == before + 2 && seen.invalid == invalid, "a sent frame arrives");
    require(seen.frames[before] == packet && seen.frames[before + 1] == packet, "as it was sent");
}

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    fuzz::Input input(data, size);
    const std::size_t piece = 1 + input.takeBelow(256);
    const std::string_view rest = input.rest();
    const std::span bytes(reinterpret_cast<const std::uint8_t*>(rest.data()), rest.size());
    fuzz::Seen whole;
    fuzz::Seen pieces;
    xcp::SerialFrameReceiver inOne(whole);
    xcp::SerialFrameReceiver inPieces(pieces);
    if (!bytes.empty()) fuzz::receive(inOne, bytes, bytes.size());
    fuzz::receive(inPieces, bytes, piece);
    fuzz::require(inOne.insideFrame() == inPieces.insideFrame(), "the same state");
    inOne.giveUpFrame();
    inPieces.giveUpFrame();
    fuzz::require(whole.frames == pieces.frames, "the same frames");
    fuzz::require(whole.plain == pieces.plain, "the same text");
    fuzz::require(whole.invalid == pieces.invalid, "equally many invalid frames");
    fuzz::require(whole.plain.size() <= bytes.size(), "no byte is invented");
    fuzz::checkText(whole.plain, piece);
    constexpr std::size_t kLargestPacket = 65535;
    const auto packet = bytes.first(std::min(bytes.size(), kLargestPacket));
    if (!packet.empty()) fuzz::checkFrame(inPieces, pieces, fuzz::Bytes(packet.begin(), packet.end()));
    return 0;
}
