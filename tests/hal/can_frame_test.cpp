#include "hal/can_frame.h"

#include <tuple>

#include <gtest/gtest.h>

#include "hal/can_receiver.h"
#include "hal/can_socket.h"

namespace lm::hal {
namespace {

std::string repeated(const std::string& text, std::size_t count) {
    return count == 0 ? "" : text + repeated(text, count - 1);
}

TEST(CanFrame, ReadsAndPrintsTheTextNotation) {
    const std::pair<std::string, std::string> rows[] = {
        {"7fF#0a", "7FF#0A"},
        {"00000123#11.22 33", "00000123#112233"},
        {"123#R", "123#R"},
        {"123#r8", "123#R8"},
        {"123##3", "123##3"},
        {"123##1AABBCCDDEEFF0011 22", "123##1AABBCCDDEEFF001122000000"},
        {"123##0" + repeated("5A", 64), "123##0" + repeated("5A", 64)},
    };
    for (const auto& [text, printed] : rows) {
        const auto frame = parseCanFrame(text);
        ASSERT_TRUE(frame) << frame.error().message;
        EXPECT_EQ(formatCanFrame(frame.value()), printed);
    }
    EXPECT_EQ(parseCanFrame("1ABCDEF0##3").value().flags, 0x01 | 0x02 | 0x04 | 0x08);
    EXPECT_EQ(parseCanFrame("123#R").value().flags, 0x10);
    const std::pair<std::string, std::string> refused[] = {
        {"123", "missing '#'"},
        {"12G#", "identifier is not hexadecimal"},
        {"1234#", "identifier must have 3 (standard) or 8 (extended) hex digits"},
        {"123#R9", "invalid remote frame length"},
        {"123#1 1", "separator inside a byte"},
        {"123#1", "odd number of payload digits"},
        {"123#1x", "payload is not hexadecimal"},
        {"123#001122334455667788", "payload too long"},
        {"123##", "missing CAN FD flags nibble"},
        {"123##4", "invalid CAN FD flags nibble"},
        {"FFF#", "CAN identifier out of range"},
    };
    for (const auto& [text, reason] : refused)
        EXPECT_EQ(parseCanFrame(text).error().message, "invalid CAN frame '" + text + "': " + reason);
}

TEST(CanFrame, RefusesFramesThatTheBusDoesNotKnow) {
    const std::tuple<std::uint32_t, std::uint8_t, std::uint8_t, const char*> frames[] = {
        {0x7FF, 8, CanFrame::remote, ""},
        {0x800, 0, 0, "CAN identifier out of range"},
        {0x20000000, 0, CanFrame::extended, "CAN identifier out of range"},
        {1, 9, 0, "classic CAN payload longer than 8 bytes"},
        {1, 8, CanFrame::brs, "BRS/ESI flags require a CAN FD frame"},
        {1, 10, CanFrame::fd, "invalid CAN FD payload length"},
        {1, 65, CanFrame::fd, "invalid CAN FD payload length"},
        {1, 12, CanFrame::fd | CanFrame::remote, "CAN FD does not support remote frames"},
    };
    for (const auto& [id, length, flags, error] : frames) {
        const auto valid = validate({.id = id, .length = length, .flags = flags});
        EXPECT_EQ(valid ? "" : valid.error().message, error);
    }
}

TEST(CanFrame, RoundsLengthsUpToThoseOfCanFd) {
    const std::size_t lengths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
    for (std::size_t length = 0, dlc = 0; length <= 65; ++length) {
        if (length > lengths[dlc] && dlc < 15) ++dlc;
        EXPECT_EQ(lengthToDlc(length), dlc) << length;
        EXPECT_EQ(roundUpCanFdLength(length), lengths[dlc]) << length;
    }
}

struct Sink final : IFrameSink {
    std::string log;

    void onFrames(const CanFrame* frames, std::size_t count) override {
        for (std::size_t i = 0; i < count; ++i)
            log += formatCanFrame(frames[i]) + "@" + std::to_string(frames[i].timestampNs) + " ";
    }
    void onChannelEvent(const CanChannelEvent&) override { ADD_FAILURE(); }
};

TEST(CanReceiver, WhatIsSentReadsTheSameWhenItIsReceived) {
    Sink sink;
    CanCounters counters;
    const std::atomic<IFrameSink*> told{&sink};
    CanReceiver receiver(counters, told, 8);
    receiver.begin({.steadyNs = 5, .steadyMinusRealNs = -100});
    for (const char* text : {"7FF#0011223344556677", "00000001#R3", "1FFFFFFF##300112233445566778899AABB"}) {
        KernelFrame kernel = toKernelFrame(parseCanFrame(text).value());
        iovec part{.iov_base = &kernel.frame, .iov_len = sizeof kernel.frame};
        msghdr header{nullptr, 0, &part, 1, nullptr, 0, 0};
        receiver.add(header, kernel.size);
    }
    receiver.finish();
    EXPECT_EQ(sink.log, "7FF#0011223344556677@5 00000001#R3@5 1FFFFFFF##300112233445566778899AABB@5 ");
}

}  // namespace
}  // namespace lm::hal
