#include "hal/can_frame.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <optional>

#include "core/text.h"

namespace lm::hal {
namespace {

constexpr std::array<std::uint8_t, 16> kCanFdLengths = {0, 1,  2,  3,  4,  5,  6,  7,
                                                        8, 12, 16, 20, 24, 32, 48, 64};

Error invalid(std::string_view reason) {
    return {.code = ErrorCode::invalidArgument, .message = std::string(reason)};
}

Result<void> readIdentifier(std::string_view text, CanFrame& frame) {
    if (text.size() != 3 && text.size() != 8) {
        return invalid("identifier must have 3 (standard) or 8 (extended) hex digits");
    }
    for (const char character : text) {
        const auto digit = hexDigit(character);
        if (!digit) return invalid("identifier is not hexadecimal");
        frame.id = frame.id << 4U | *digit;
    }
    if (text.size() == 8) frame.set(CanFrame::extended);
    return {};
}

Result<void> readRemoteLength(std::string_view text, CanFrame& frame) {
    frame.set(CanFrame::remote);
    if (text.empty()) return {};
    if (text.size() != 1 || text[0] < '0' || text[0] > '8') return invalid("invalid remote frame length");
    frame.length = static_cast<std::uint8_t>(text[0] - '0');
    return {};
}

Result<void> readPayload(std::string_view text, std::size_t limit, CanFrame& frame) {
    std::optional<unsigned> high;
    for (const char character : text) {
        if (character == '.' || character == ' ') {
            if (high) return invalid("separator inside a byte");
            continue;
        }
        const auto digit = hexDigit(character);
        if (!digit) return invalid("payload is not hexadecimal");
        if (!high) {
            high = digit;
            continue;
        }
        if (frame.length == limit) return invalid("payload too long");
        frame.data[frame.length++] = static_cast<std::uint8_t>(*high << 4U | *digit);
        high.reset();
    }
    if (high) return invalid("odd number of payload digits");
    return {};
}

Result<void> readCanFd(std::string_view text, CanFrame& frame) {
    frame.set(CanFrame::fd);
    if (text.empty()) return invalid("missing CAN FD flags nibble");
    const auto nibble = hexDigit(text[0]);
    if (!nibble || *nibble > 3) return invalid("invalid CAN FD flags nibble");
    if ((*nibble & 1U) != 0) frame.set(CanFrame::brs);
    if ((*nibble & 2U) != 0) frame.set(CanFrame::esi);
    auto payload = readPayload(text.substr(1), CanFrame::kMaxData, frame);
    frame.length = roundUpCanFdLength(frame.length);
    return payload;
}

Result<void> readFrame(std::string_view text, CanFrame& frame) {
    const auto hash = text.find('#');
    if (hash == std::string_view::npos) return invalid("missing '#'");
    if (auto identifier = readIdentifier(text.substr(0, hash), frame); !identifier) return identifier;
    const std::string_view rest = text.substr(hash + 1);
    const char first = rest.empty() ? '\0' : rest[0];
    Result<void> read;
    if (first == 'R' || first == 'r') {
        read = readRemoteLength(rest.substr(1), frame);
    } else if (first == '#') {
        read = readCanFd(rest.substr(1), frame);
    } else {
        read = readPayload(rest, CanFrame::kMaxClassicData, frame);
    }
    return read ? validate(frame) : std::move(read);
}

}  // namespace

std::uint8_t lengthToDlc(std::size_t length) {
    const auto* const end = kCanFdLengths.end() - 1;
    return static_cast<std::uint8_t>(
        std::distance(kCanFdLengths.begin(), std::lower_bound(kCanFdLengths.begin(), end, length)));
}

std::uint8_t roundUpCanFdLength(std::size_t length) {
    return kCanFdLengths[lengthToDlc(length)];
}

Result<void> validate(const CanFrame& frame) {
    const auto highest =
        frame.has(CanFrame::extended) ? CanFrame::kExtendedIdMask : CanFrame::kStandardIdMask;
    if (frame.id > highest) return invalid("CAN identifier out of range");
    if (frame.has(CanFrame::fd)) {
        if (roundUpCanFdLength(frame.length) != frame.length) return invalid("invalid CAN FD payload length");
        if (frame.has(CanFrame::remote)) return invalid("CAN FD does not support remote frames");
        return {};
    }
    if (frame.length > CanFrame::kMaxClassicData) return invalid("classic CAN payload longer than 8 bytes");
    if (frame.has(CanFrame::brs) || frame.has(CanFrame::esi)) {
        return invalid("BRS/ESI flags require a CAN FD frame");
    }
    return {};
}

Result<CanFrame> parseCanFrame(std::string_view text) {
    CanFrame frame;
    if (const auto read = readFrame(text, frame); !read) {
        return invalid("invalid CAN frame '" + std::string(text) + "': " + read.error().message);
    }
    return frame;
}

std::string formatCanFrame(const CanFrame& frame) {
    const std::size_t length = std::min<std::size_t>(frame.length, CanFrame::kMaxData);
    std::string text;
    text.reserve(2 * length + 16);
    std::array<char, 10> identifier{};
    const int digits = frame.has(CanFrame::extended) ? 8 : 3;
    std::snprintf(identifier.data(), identifier.size(), "%0*X#", digits, static_cast<unsigned>(frame.id));
    text += identifier.data();
    if (frame.has(CanFrame::fd)) {
        text += '#';
        text += kHexDigits[(frame.has(CanFrame::brs) ? 1U : 0U) + (frame.has(CanFrame::esi) ? 2U : 0U)];
    } else if (frame.has(CanFrame::remote)) {
        text += 'R';
        if (length != 0) text += kHexDigits[length % kHexDigits.size()];
        return text;
    }
    for (std::size_t i = 0; i < length; ++i) {
        text += kHexDigits[frame.data[i] >> 4U];
        text += kHexDigits[frame.data[i] & 0xFU];
    }
    return text;
}

}  // namespace lm::hal
