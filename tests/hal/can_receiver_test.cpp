#include "hal/can_receiver.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <span>
#include <tuple>

#include <gtest/gtest.h>
#include <spdlog/fmt/fmt.h>

#include "hal/can_socket.h"

namespace lm::hal {
namespace {

/// Messages as the kernel delivers them, and a log of what the sink was given.
class CanReceiverTest : public ::testing::Test, public IFrameSink {
  protected:
    static constexpr CanClocks kClocks{.steadyNs = 5'000'000'000, .steadyMinusRealNs = -100'000'000'000};

    void addControl(int type, const void* data, std::size_t size) {
        auto* const item = reinterpret_cast<cmsghdr*>(control_.data() + controlSize_);
        item->cmsg_level = SOL_SOCKET;
        item->cmsg_type = type;
        item->cmsg_len = CMSG_LEN(size);
        std::memcpy(CMSG_DATA(item), data, size);
        controlSize_ += CMSG_SPACE(size);
    }
    void addStamps(std::array<timespec, 3> stamps) { addControl(SCM_TIMESTAMPING, &stamps, sizeof stamps); }
    void addFrame(canfd_frame frame, std::size_t size) {
        iovec part{.iov_base = &frame, .iov_len = sizeof frame};
        msghdr header{nullptr, 0, &part, 1, control_.data(), controlSize_, 0};
        receiver_.add(header, size);
        controlSize_ = 0;
    }
    void add(canid_t id, std::uint8_t length, std::size_t size = CAN_MTU, std::uint8_t flags = 0,
             std::uint8_t second = 0) {
        canfd_frame frame{};
        frame.can_id = id;
        frame.len = length;
        frame.flags = flags;
        std::memset(frame.data, 0x5A, sizeof frame.data);
        frame.data[1] = second;
        addFrame(frame, size);
    }
    std::string logged() { return std::exchange(log_, {}); }

    void onFrames(const CanFrame* frames, std::size_t count) override {
        for (const CanFrame& frame : std::span(frames, count)) {
            log_ += fmt::format("{}@{}/{} ", formatCanFrame(frame), frame.timestampNs, frame.hwTimestampNs);
            EXPECT_EQ(std::count(frame.data.begin() + frame.length, frame.data.end(), 0), 64 - frame.length);
        }
        log_ += "| ";
    }
    void onChannelEvent(const CanChannelEvent& event) override {
        log_ += fmt::format("{}/{}/{:x} ", static_cast<int>(event.kind), static_cast<int>(event.state),
                            event.value);
    }

    CanCounters counters_;
    const std::atomic<IFrameSink*> sink_{this};
    CanReceiver receiver_{counters_, sink_, 8};
    alignas(cmsghdr) std::array<char, 152> control_{};
    std::size_t controlSize_ = 0;
    std::string log_;
};

TEST_F(CanReceiverTest, DecodesFramesAndTheirTimes) {
    receiver_.begin(kClocks);
    add(0x7FF, 12);                                    // a length beyond classic CAN
    add(CAN_EFF_FLAG | CAN_RTR_FLAG | 0x1FFFFFFF, 2);  // remote
    add(0xFFF, 200, CANFD_MTU, CANFD_BRS);             // 12 bits, a length beyond CAN FD
    add(1, 1, CANFD_MTU, CANFD_ESI | CANFD_FDF);
    addStamps({timespec{104, 7}, {}, {9, 8}});
    add(2, 0);
    addStamps({timespec{200, 0}, {}, {}});  // the realtime clock was set back since
    add(3, 0);
    add(4, 0, CAN_MTU - 1);
    EXPECT_EQ(logged(), "");
    receiver_.finish();
    std::string fd = "7FF##15A00";
    for (int i = 0; i < 62; ++i)
        fd += "5A";
    const std::string now = "@5000000000/0 ";
    EXPECT_EQ(logged(), "7FF#5A005A5A5A5A5A5A" + now + "1FFFFFFF#R2" + now + fd + now + "001##25A" + now +
                            "002#@4000000007/9000000008 003#" + now + "| ");
    receiver_.finish();
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(counters_.framesReceived, 6U);
    // What is sent reads the same when it is received.
    for (const char* text : {"7FF#0011223344556677", "00000001#R3", "1FFFFFFF##300112233445566778899AABB"}) {
        const KernelFrame kernel = toKernelFrame(parseCanFrame(text).value());
        addFrame(kernel.frame, kernel.size);
        receiver_.finish();
        EXPECT_EQ(logged(), text + now + "| ");
    }
}

TEST_F(CanReceiverTest, CountsWhatTheKernelDropped) {
    receiver_.begin(kClocks);
    for (const auto& [total, lost] :
         {std::pair{5U, "5"}, {12U, "7"}, {12U, ""}, {~0U, "fffffff3"}, {2U, "3"}}) {
        addControl(SO_RXQ_OVFL, &total, sizeof total);
        add(1, 0);
        EXPECT_EQ(logged(), *lost == 0 ? "" : fmt::format("1/0/{} ", lost));
    }
    EXPECT_EQ(counters_.framesLost, 0x100000002U);
}

TEST_F(CanReceiverTest, FollowsTheBusByItsErrorFrames) {
    // The class, the byte of the controller's problems, events as KIND/STATE/VALUE.
    const std::tuple<canid_t, std::uint8_t, const char*> rows[] = {
        {0x4, 0x08, "0/2/0 2/2/4 "},     {0x4, 0x14, "0/3/0 2/3/4 "},  // passive goes before warning
        {0x4, 0x20, "2/3/4 "},                                         // as before: no change
        {0x204, 0x01, "1/3/1 2/3/204 "}, {0x40, 0x00, "0/4/0 2/4/40 "},
        {0x40, 0x10, "2/4/40 "},  // the byte belongs to another class
        {0x100, 0x00, "0/1/0 2/1/100 "}, {0x4, 0x06, "0/2/0 1/2/1 2/2/4 "},
        {0x4, 0x40, "0/1/0 2/1/4 "},     {0x88, 0xFF, "2/1/88 "},
    };
    receiver_.begin(kClocks);
    for (const auto& [errorClass, problem, events] : rows) {
        add(CAN_ERR_FLAG | errorClass, 8, CAN_MTU, 0, problem);
        receiver_.finish();
        EXPECT_EQ(logged(), events);
    }
    EXPECT_EQ(counters_.errorFrames, std::size(rows));
    EXPECT_EQ(counters_.busOffCount, 2U);
    EXPECT_EQ(counters_.framesLost, 2U);
    EXPECT_EQ(counters_.framesReceived, 0U);
}

}  // namespace
}  // namespace lm::hal
