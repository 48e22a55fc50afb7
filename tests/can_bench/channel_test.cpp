// Channels on real interfaces: virtual ones of their own and, in the guest, the pair fcan0 and fcan1 that has
// faults on order.
#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>

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
        const bool seen =
            changed_.wait_for(lock, std::chrono::seconds(60), [&] { return log_.ends_with(end + " "); });
        return (seen ? "" : "TIMEOUT ") + std::exchange(log_, "");
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
        if (std::getenv("XCPLUMO_CAN_GUEST") == nullptr)
            GTEST_SKIP() << "tests/can_bench/run boots the guest";
        ip("link add dev " + vcan_ + " mtu 72 type vcan");
        ip("link set " + vcan_ + " up");
        for (const char* name : {"fcan0", "fcan1"}) {
            ip(fmt::format("link set {} down", name));
            ip(fmt::format("link set {} type can bitrate 125000 fd off listen-only off", name));
        }
    }
    void TearDown() override {
        static_cast<void>(std::system(("ip link del " + vcan_ + " 2>/dev/null").c_str()));
    }

    static void ip(const std::string& words) { ASSERT_EQ(std::system(("ip " + words).c_str()), 0) << words; }
    static std::string details(const std::string& name) {
        std::array<char, 4096> text{};
        FILE* const pipe = ::popen(("ip -details link show " + name).c_str(), "r");
        const std::size_t size = std::fread(text.data(), 1, text.size(), pipe);
        ::pclose(pipe);
        return {text.data(), size};
    }
    static void fault(const std::string& order) {
        ASSERT_TRUE(std::ofstream("/sys/class/net/fcan0/fault") << order << std::flush) << order;
    }
    std::unique_ptr<ICanChannel> channel(CanChannelConfig config, IFrameSink* sink = nullptr) {
        auto made = adapter_.openChannel(std::move(config)).value();
        made->setSink(sink);
        return made;
    }
    static std::string text(const Result<void>& result) { return result ? "" : result.error().text(); }
    static Result<void> send(ICanChannel& channel, const std::string& frame) {
        return channel.send(parseCanFrame(frame).value());
    }

    const std::string vcan_ = fmt::format("vcant{}", ::getpid());
    SocketCanAdapter adapter_;
    Record record_;
};

TEST_F(ChannelTest, OpeningSaysWhatIsMissing) {
    ip("link set " + vcan_ + " down");
    ip("link set " + vcan_ + " mtu 16");
    ip("link set fcan1 up");
    EXPECT_EQ(text(channel({.interfaceName = "vcan555"})->open()).substr(0, 49),
              "virtual CAN interface 'vcan555' does not exist. C");
    EXPECT_EQ(
        text(channel({.interfaceName = "can77"})->open()),
        "CAN interface 'can77' not found: is the adapter connected? `ip -br link` lists the interfaces");
    const auto own = channel({.interfaceName = vcan_, .fd = true});
    EXPECT_EQ(text(own->open()),
              vcan_ + " is down. Switch it on in a terminal: `sudo ip link set " + vcan_ + " up`");
    ip("link set " + vcan_ + " up");
    EXPECT_EQ(text(own->open()), vcan_ +
                                     " is not CAN FD capable. Change it in a terminal: `sudo ip link set " +
                                     vcan_ + " down && sudo ip link set " + vcan_ + " mtu 72 up`");
    EXPECT_EQ(text(channel({.interfaceName = "fcan0"})->open()).substr(0, 61),
              "fcan0 is down and no bitrate is configured: set the bitrate i");
    EXPECT_EQ(text(channel({.interfaceName = "fcan1", .fd = true})->open()), "fcan1 is not in CAN FD mode");
    EXPECT_EQ(text(channel({.interfaceName = "can0", .fd = true, .bitrate = k500})->open()),
              "can0: netlink request: Operation not supported");
    EXPECT_EQ(text(channel({.interfaceName = "lo"})->open()), "bind to lo: No such device");
    EXPECT_FALSE(own->isOpen());
}

TEST_F(ChannelTest, SetsBitTimingAndModeAndLeavesAMatchingLinkAlone) {
    const auto carrierChanges = [] {
        std::string count;
        std::ifstream("/sys/class/net/fcan0/carrier_changes") >> count;
        return count;
    };
    CanChannelConfig config{
        .interfaceName = "fcan0", .fd = true, .bitrate = CanBitTiming{500000, 800}, .dataBitrate = k2000};
    ASSERT_EQ(text(channel(config)->open()), "");
    std::string shown = details("fcan0");
    for (const char* part :
         {"UP", "mtu 72", "can <FD>", " bitrate 500000 sample-point 0.800", "dbitrate 2000000 "}) {
        EXPECT_NE(shown.find(part), std::string::npos) << part << " in " << shown;
    }
    const std::string before = carrierChanges();
    ASSERT_EQ(text(channel(config)->open()), "");
    EXPECT_EQ(carrierChanges(), before);

    config = {.interfaceName = "fcan0", .bitrate = CanBitTiming{250000, 875}, .listenOnly = true};
    const auto listener = channel(config);
    ASSERT_EQ(text(listener->open()), "");
    EXPECT_EQ(text(listener->open()), "fcan0 is already open");
    shown = details("fcan0");
    for (const char* part : {"UP", "mtu 16", "can <LISTEN-ONLY>", " bitrate 250000 sample-point 0.875"}) {
        EXPECT_NE(shown.find(part), std::string::npos) << part << " in " << shown;
    }
    std::set<std::string> names;
    for (const CanInterfaceInfo& info : adapter_.listInterfaces().value()) {
        names.insert(info.name + ":" + info.driver + ":" + info.link.kind);
        if (info.name != "fcan0") continue;
        EXPECT_EQ(info.link.bitTiming, (CanBitTiming{250000, 875}));
        EXPECT_EQ(info.link.busState, CanBusState::errorActive);
    }
    EXPECT_EQ(names.count("can0:kvaser_pci:can") + names.count("fcan0::can") + names.count(vcan_ + "::vcan"),
              3U);
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
            EXPECT_EQ(text(send(*one, frame)), "");
            EXPECT_EQ(other.upTo(frame), frame + " ");
            EXPECT_EQ(text(send(*two, frame)), "");
            EXPECT_EQ(record_.upTo(frame), frame + " ");
        }
        EXPECT_EQ(two->statistics().framesReceived, 5U);
        EXPECT_EQ(one->statistics().framesSent, 5U);
    };
    twice({.interfaceName = vcan_, .fd = true, .receiveBatch = 0}, vcan_, false);
    twice({.interfaceName = "fcan0", .fd = true, .bitrate = k500, .dataBitrate = k2000}, "fcan1", true);
    const auto classic = channel({.interfaceName = vcan_});
    EXPECT_EQ(text(send(*classic, "123#")), vcan_ + " is not open");
    ASSERT_EQ(text(classic->open()), "");
    EXPECT_EQ(text(send(*classic, "123##0")), "CAN FD frame on a classic CAN channel");
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
        failure = text(send(*sender, "001#"));
        last = std::chrono::steady_clock::now() - start;
    }
    EXPECT_EQ(failure, "send on fcan0: No buffer space available");
    EXPECT_GE(last, std::chrono::milliseconds(50));
    EXPECT_EQ(sender->statistics().sendFailures, 1U);
    fault("hold 0");
    ASSERT_EQ(text(send(*sender, "002#")), "");
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
    ip("link set fcan0 type can restart");
    EXPECT_EQ(record_.upTo("2/1/100"), "0/1/0 2/1/100 ");
    const CanChannelStatistics counts = own->statistics();
    EXPECT_EQ(counts.errorFrames, 7U);
    EXPECT_EQ(counts.busOffCount, 1U);
    EXPECT_EQ(counts.framesLost, 1U);
    fault("bec 0 128");
    record_.upTo("0/3/0 2/3/204");
    EXPECT_EQ(text(own->open()), "fcan0 is already open");
    const auto second = channel({.interfaceName = "fcan0"});
    ASSERT_EQ(text(second->open()), "");
    EXPECT_EQ(second->busState(), CanBusState::errorPassive);
}

TEST_F(ChannelTest, CountsEveryFrameThatASlowSinkCosts) {
    std::mutex gate;
    record_.action = [&](const CanFrame& frame) {
        if (frame.id == 1) const std::lock_guard wait(gate);
    };
    const auto receiver = channel({.interfaceName = vcan_, .receiveBatch = 1}, &record_);
    const auto sender = channel({.interfaceName = vcan_});
    ASSERT_EQ(text(receiver->open()) + text(sender->open()), "");
    {
        const std::lock_guard closed(gate);
        ASSERT_EQ(text(send(*sender, "001#")), "");
        for (int i = 0; i < 60'000; ++i) {
            ASSERT_EQ(text(send(*sender, "002#")), "");
        }
    }
    // The kernel tells of drops with the next frame that finds room.
    const std::string tail = "003#";
    while (receiver->statistics().framesReceived == 0 || receiver->statistics().framesLost == 0) {
        ASSERT_EQ(text(send(*sender, "002#")), "");
    }
    do {
        ASSERT_EQ(text(send(*sender, tail)), "");
    } while (record_.upTo(tail).starts_with("TIMEOUT"));
    const CanChannelStatistics counts = receiver->statistics();
    EXPECT_GT(counts.framesLost, 0U);
    EXPECT_EQ(counts.framesReceived + counts.framesLost, sender->statistics().framesSent);
}

TEST_F(ChannelTest, OutlivesAnInterfaceThatGoesAndComesBack) {
    const auto own = channel({.interfaceName = vcan_}, &record_);
    const auto again = [&] {
        const auto other = channel({.interfaceName = vcan_});
        ASSERT_EQ(text(other->open()), "");
        ASSERT_EQ(text(send(*other, "001#")), "");
        EXPECT_EQ(record_.upTo("001#"), "001# ");
    };
    ASSERT_EQ(text(own->open()), "");
    ip("link set " + vcan_ + " down");
    EXPECT_EQ(record_.upTo("3/1/64"), "3/1/64 ");  // ENETDOWN, once
    EXPECT_EQ(text(send(*own, "001#")), "send on " + vcan_ + ": Network is down");
    ip("link set " + vcan_ + " up");
    again();
    ip("link del " + vcan_);
    record_.upTo("3/1/64");
    EXPECT_EQ(text(send(*own, "001#")), "send on " + vcan_ + ": No such device or address");
    ip("link add dev " + vcan_ + " type vcan");
    ip("link set " + vcan_ + " up");
    own->close();
    ASSERT_EQ(text(own->open()), "");
    again();
    EXPECT_EQ(own->statistics().framesReceived, 2U);
    EXPECT_EQ(own->statistics().sendFailures, 2U);
}

}  // namespace
}  // namespace lm::hal
