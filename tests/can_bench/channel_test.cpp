// What a channel can do that the tool does not show: on a virtual interface and on the pair fcan0 and fcan1
// that has faults on order, both of the guest.
#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "hal/can_receiver.h"
#include "hal/socketcan_adapter.h"

namespace lm::hal {
namespace {

constexpr CanBitTiming k500 = {500000, 0};
constexpr CanBitTiming k2000 = {2000000, 0};

/// Keeps what a channel delivers: frames in the text notation, events as "KIND/STATE/VALUE".
class Record final : public IFrameSink {
  public:
    std::function<void(const CanFrame&)> action = [](const CanFrame&) {};

    void onFrames(const CanFrame* frames, std::size_t count) override {
        for (std::size_t i = 0; i < count; ++i) {
            action(frames[i]);
            add(formatCanFrame(frames[i]) + " ");
        }
    }
    void onChannelEvent(const CanChannelEvent& event) override {
        add(fmt::format("{}/{}/{:x} ", static_cast<int>(event.kind), static_cast<int>(event.state),
                        event.value));
    }
    /// Waits until the record ends with `end` and begins a new one.
    std::string upTo(const std::string& end) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(60), [&] { return log_.ends_with(end + " "); });
        return std::exchange(log_, "");
    }

  private:
    void add(const std::string& text) {
        const std::lock_guard lock(mutex_);
        log_ += text;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::string log_;
};

class ChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::getenv("XCPLUMO_CAN_GUEST") == nullptr) GTEST_SKIP() << "runs in the guest";
        run("ip link add dev " + vcan_ + " mtu 72 type vcan && ip link set " + vcan_ + " up");
        run("for i in fcan0 fcan1; do ip link set $i down; "
            "ip link set $i type can bitrate 125000 fd off listen-only off; done");
    }
    void TearDown() override { run("ip link del " + vcan_ + " 2>&1 || true"); }

    /// What a shell command prints.
    static std::string run(const std::string& command) {
        std::array<char, 4096> text{};
        FILE* const pipe = ::popen(command.c_str(), "r");
        const std::size_t size = std::fread(text.data(), 1, text.size(), pipe);
        EXPECT_EQ(::pclose(pipe), 0) << command;
        return {text.data(), size};
    }
    static void fault(const std::string& order) { run("echo " + order + " >/sys/class/net/fcan0/fault"); }
    std::unique_ptr<ICanChannel> channel(CanChannelConfig config, IFrameSink* sink = nullptr) {
        auto made = adapter_.openChannel(std::move(config)).value();
        made->setSink(sink);
        return made;
    }
    static std::string text(const Result<void>& result) { return result ? "" : result.error().text(); }
    static std::string send(ICanChannel& channel, const std::string& frame) {
        return text(channel.send(parseCanFrame(frame).value()));
    }

    const std::string vcan_ = fmt::format("vcant{}", ::getpid());
    SocketCanAdapter adapter_;
    Record record_;
};

TEST_F(ChannelTest, SetsBitTimingAndMode) {
    const auto expect = [](std::initializer_list<const char*> parts) {
        const std::string shown = run("ip -details link show fcan0");
        for (const char* part : parts)
            EXPECT_NE(shown.find(part), std::string::npos) << part << " in " << shown;
    };
    const CanBitTiming early = {500000, 800};
    ASSERT_EQ(
        text(channel({.interfaceName = "fcan0", .fd = true, .bitrate = early, .dataBitrate = k2000})->open()),
        "");
    expect({"UP", "mtu 72", "can <FD>", " bitrate 500000 sample-point 0.800", "dbitrate 2000000 "});
    const auto own =
        channel({.interfaceName = "fcan0", .bitrate = CanBitTiming{250000, 875}, .listenOnly = true});
    ASSERT_EQ(text(own->open()), "");
    EXPECT_EQ(text(own->open()), "fcan0 is already open");
    expect({"UP", "mtu 16", "can <LISTEN-ONLY>", " bitrate 250000 sample-point 0.875"});
    std::string listed;
    const auto interfaces = adapter_.listInterfaces();
    for (const CanInterfaceInfo& info : interfaces.value()) {
        listed += fmt::format("{}:{}:{}:{} ", info.name, info.driver, info.state.kind,
                              info.state.bitTiming.bitrate);
    }
    for (const std::string part : {"can0:kvaser_pci:can:", "fcan0::can:250000 ", " vcant"}) {
        EXPECT_NE(listed.find(part), std::string::npos) << part << " in " << listed;
    }
}

TEST_F(ChannelTest, CarriesFramesBothWays) {
    const auto twice = [&](CanChannelConfig config, const std::string& peer, bool stamped) {
        Record other;
        const auto one = channel(config, &record_);
        config.interfaceName = peer;
        const auto two = channel(config, &other);
        ASSERT_EQ(text(one->open()) + text(two->open()), "");
        const std::int64_t start = CanClocks::read().steadyNs;
        const auto check = [&](const CanFrame& frame) {
            EXPECT_GE(frame.timestampNs, start);
            EXPECT_LE(frame.timestampNs, CanClocks::read().steadyNs);
            EXPECT_EQ(frame.hwTimestampNs != 0, stamped);
        };
        record_.action = other.action = check;
        for (const std::string frame : {"7FF#0011223344556677", "00000001#R4",
                                        "1FFFFFFF##3001122334455667788990011", "000##0", "123#"}) {
            EXPECT_EQ(send(*one, frame), "");
            EXPECT_EQ(other.upTo(frame), frame + " ");
            EXPECT_EQ(send(*two, frame), "");
            EXPECT_EQ(record_.upTo(frame), frame + " ");
        }
        EXPECT_EQ(two->statistics().framesReceived, 5U);
        EXPECT_EQ(one->statistics().framesSent, 5U);
    };
    twice({.interfaceName = vcan_, .fd = true, .receiveBatch = 0}, vcan_, false);
    twice({.interfaceName = "fcan0", .fd = true, .bitrate = k500, .dataBitrate = k2000}, "fcan1", true);
    const auto classic = channel({.interfaceName = vcan_});
    EXPECT_EQ(send(*classic, "123#"), vcan_ + " is not open");
    ASSERT_EQ(text(classic->open()), "");
    EXPECT_EQ(send(*classic, "123##0"), "CAN FD frame on a classic CAN channel");
}

TEST_F(ChannelTest, AFullQueueEndsASendAtItsTimeLimit) {
    const auto sender = channel({.interfaceName = "fcan0", .bitrate = k500, .sendTimeoutMs = 50});
    const auto receiver = channel({.interfaceName = "fcan1", .bitrate = k500}, &record_);
    ASSERT_EQ(text(sender->open()) + text(receiver->open()), "");
    fault("hold 1");
    std::string failure;
    std::chrono::steady_clock::duration last{};
    while (failure.empty()) {
        const auto start = std::chrono::steady_clock::now();
        failure = send(*sender, "001#");
        last = std::chrono::steady_clock::now() - start;
    }
    EXPECT_EQ(failure, "send on fcan0: No buffer space available");
    EXPECT_GE(last, std::chrono::milliseconds(50));
    EXPECT_EQ(sender->statistics().sendFailures, 1U);
    fault("hold 0");
    ASSERT_EQ(send(*sender, "002#"), "");
    record_.upTo("002#");
    EXPECT_EQ(receiver->statistics().framesReceived, sender->statistics().framesSent);
}

TEST_F(ChannelTest, FollowsTheStatesOfItsController) {
    const auto own = channel({.interfaceName = "fcan0", .bitrate = k500}, &record_);
    ASSERT_EQ(text(own->open()), "");
    EXPECT_EQ(own->busState(), CanBusState::errorActive);
    const struct {
        std::string order, events;
    } rows[] = {{"bec 100 0", "0/2/0 2/2/204"},
                {"bec 0 130", "0/3/0 2/3/204"},
                {"bec 0 131", "2/3/200"},
                {"bec 10 0", "0/1/0 2/1/204"},
                {"raw 4 0 1 0 0 0 0 0 0", "1/1/1 2/1/4"},
                {"bec 256 0", "0/4/0 2/4/40"}};
    for (const auto& row : rows) {
        fault(row.order);
        EXPECT_EQ(record_.upTo(row.events), row.events + " ");
    }
    run("ip link set fcan0 type can restart");
    EXPECT_EQ(record_.upTo("2/1/100"), "0/1/0 2/1/100 ");
    const CanChannelStatistics counts = own->statistics();
    EXPECT_EQ(counts.errorFrames, 7U);
    EXPECT_EQ(counts.busOffCount, 1U);
    EXPECT_EQ(counts.framesLost, 1U);
    fault("bec 0 128");
    record_.upTo("0/3/0 2/3/204");
    const auto second = channel({.interfaceName = "fcan0"});
    ASSERT_EQ(text(second->open()), "");
    EXPECT_EQ(second->busState(), CanBusState::errorPassive);
}

}  // namespace
}  // namespace lm::hal
