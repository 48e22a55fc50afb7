#include "hal/can_receiver.h"

#include <array>
#include <cstring>
#include <ctime>

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
    void addStamps(timespec software, timespec hardware) {
        const std::array<timespec, 3> stamps = {software, timespec{}, hardware};
        addControl(SCM_TIMESTAMPING, stamps.data(), sizeof stamps);
    }
    void addDrops(std::uint32_t total) { addControl(SO_RXQ_OVFL, &total, sizeof total); }

    void addFrame(canfd_frame frame, std::size_t size) {
        iovec part{.iov_base = &frame, .iov_len = sizeof frame};
        msghdr header{};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control_.data();
        header.msg_controllen = controlSize_;
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
        for (std::size_t i = 0; i < count; ++i) {
            const CanFrame& frame = frames[i];
            log_ += fmt::format("{}@{}/{} ", formatCanFrame(frame), frame.timestampNs, frame.hwTimestampNs);
            for (std::size_t at = frame.length; at < frame.data.size(); ++at)
                EXPECT_EQ(frame.data[at], 0);
        }
        log_ += "| ";
    }
    void onChannelEvent(const CanChannelEvent& event) override {
        log_ += fmt::format("event {} state {} value {:x}; ", static_cast<int>(event.kind),
                            static_cast<int>(event.state), event.value);
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
    addStamps({104, 7}, {9, 8});
    add(2, 0);
    addStamps({200, 0}, {});  // the realtime clock was set back since
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
}

TEST_F(CanReceiverTest, SendsWhatItReceives) {
    receiver_.begin(kClocks);
    for (const char* text : {"7FF#0011223344556677", "00000001#R3", "1FFFFFFF##300112233445566778899AABB"}) {
        const KernelFrame kernel = toKernelFrame(parseCanFrame(text).value());
        addFrame(kernel.frame, kernel.size);
        receiver_.finish();
        EXPECT_EQ(logged(), text + std::string("@5000000000/0 | "));
    }
}

TEST_F(CanReceiverTest, CountsWhatTheKernelDropped) {
    receiver_.begin(kClocks);
    const struct {
        std::uint32_t total;
        std::string log;
    } rows[] = {{5, "event 1 state 0 value 5; "},
                {12, "event 1 state 0 value 7; "},
                {12, ""},
                {0xFFFFFFFF, "event 1 state 0 value fffffff3; "},
                {2, "event 1 state 0 value 3; "}};
    for (const auto& row : rows) {
        addDrops(row.total);
        add(1, 0);
        EXPECT_EQ(logged(), row.log);
    }
    EXPECT_EQ(counters_.framesLost, 0x100000002U);
}

TEST_F(CanReceiverTest, FollowsTheBusByItsErrorFrames) {
    const struct {
        canid_t errorClass;
        std::uint8_t problem;
        std::string log;
    } rows[] = {
        {0x4, 0x08, "event 0 state 2 value 0; event 2 state 2 value 4; "},
        {0x4, 0x14, "event 0 state 3 value 0; event 2 state 3 value 4; "},  // passive goes before warning
        {0x4, 0x20, "event 2 state 3 value 4; "},                           // as before: no change
        {0x204, 0x01, "event 1 state 3 value 1; event 2 state 3 value 204; "},
        {0x40, 0x00, "event 0 state 4 value 0; event 2 state 4 value 40; "},
        {0x40, 0x10, "event 2 state 4 value 40; "},  // the byte belongs to another class
        {0x100, 0x00, "event 0 state 1 value 0; event 2 state 1 value 100; "},
        {0x4, 0x06, "event 0 state 2 value 0; event 1 state 2 value 1; event 2 state 2 value 4; "},
        {0x4, 0x40, "event 0 state 1 value 0; event 2 state 1 value 4; "},
        {0x88, 0xFF, "event 2 state 1 value 88; "},
    };
    receiver_.begin(kClocks);
    for (const auto& row : rows) {
        add(CAN_ERR_FLAG | row.errorClass, 8, CAN_MTU, 0, row.problem);
        EXPECT_EQ(logged(), row.log) << row.errorClass;
    }
    receiver_.finish();
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(counters_.errorFrames, std::size(rows));
    EXPECT_EQ(counters_.busOffCount, 2U);
    EXPECT_EQ(counters_.framesLost, 2U);
    EXPECT_EQ(counters_.framesReceived, 0U);
}

}  // namespace
}  // namespace lm::hal
