// The text notation of CAN frames: a line gives a valid frame or an error, and the frame's own notation is
// that line without its separators; every valid frame comes back from its notation.
#include <algorithm>
#include <cctype>
#include <string>

#include "fuzz_input.h"
#include "hal/can_frame.h"

namespace lm::fuzz {
namespace {

bool sameFrame(const hal::CanFrame& a, const hal::CanFrame& b) {
    return a.id == b.id && a.length == b.length && a.flags == b.flags && a.data == b.data;
}

/// The notation as the program prints it, but for what pads a CAN FD frame.
std::string normalised(std::string_view text) {
    std::string plain;
    for (const char c : text) {
        if (c != '.' && c != ' ') plain += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    if (plain.ends_with("#R0")) plain.pop_back();
    return plain;
}

void checkText(std::string_view text) {
    const auto frame = hal::parseCanFrame(text);
    if (!frame) {
        const std::string start = "invalid CAN frame '" + std::string(text) + "': ";
        return require(frame.error().text().starts_with(start), "an error quotes the text");
    }
    require(hal::validate(frame.value()).ok(), "a frame that was read is valid");
    const auto& data = frame.value().data;
    require(std::all_of(data.begin() + frame.value().length, data.end(), [](auto b) { return b == 0; }),
            "nothing lies beyond the length");
    const std::string typed = normalised(text);
    const std::string printed = hal::formatCanFrame(frame.value());
    require(printed.starts_with(typed), "what was typed is printed");
    const std::string_view padding = std::string_view(printed).substr(typed.size());
    require(padding.empty() || frame.value().has(hal::CanFrame::fd), "CAN FD frames alone are padded");
    require(padding.find_first_not_of('0') == std::string_view::npos, "with zeros");
    const auto again = hal::parseCanFrame(printed);
    require(again.ok() && sameFrame(again.value(), frame.value()), "what is printed is the same frame");
}

void checkFrame(Input input) {
    hal::CanFrame frame;
    frame.id = input.take<std::uint32_t>() >> (input.take<std::uint8_t>() & 0x1FU);
    frame.flags = input.take<std::uint8_t>();
    frame.length = input.take<std::uint8_t>();
    // Bytes that the frame does not have are zero, and a remote frame has none.
    const auto bytes = input.takeBytes(std::min<std::size_t>(frame.length, hal::CanFrame::kMaxData));
    if (!frame.has(hal::CanFrame::remote)) std::copy(bytes.begin(), bytes.end(), frame.data.begin());
    const std::string text = hal::formatCanFrame(frame);
    constexpr unsigned kFlags = 0x1F;
    if (frame.flags > kFlags || !hal::validate(frame)) return;
    const auto again = hal::parseCanFrame(text);
    require(again.ok() && sameFrame(again.value(), frame), "a valid frame comes back");
}

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    fuzz::checkFrame(fuzz::Input(data, size));
    fuzz::checkText(fuzz::Input(data, size).rest());
    return 0;
}
