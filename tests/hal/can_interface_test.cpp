#include <cerrno>
#include <functional>

#include <gtest/gtest.h>
#include <spdlog/fmt/fmt.h>

#include "core/platform.h"
#include "hal/can_interface_message.h"
#include "hal/can_interface_setup.h"
#include "support/hex.h"

namespace lm::hal {
namespace {

using test::hex;

const auto zeros = [](std::size_t count) { return std::string(2 * count, '0'); };

const std::string kName = "0900 0300 63616E30 00000000";
const std::string kTiming = "2400 0100 20A10700 6B030000" + zeros(24);      // 500 kbit/s, 87.5 %
const std::string kDataTiming = "2400 0900 80841E00 EE020000" + zeros(24);  // 2 Mbit/s, 75 %

TEST(CanInterfaceMessage, RequestsAreWhatTheKernelReads) {
    const std::string head = "07000000 00000000 00000000 00000000";
    EXPECT_EQ(interfaceQuery("can0", 7), hex("2C000000 1200 0100" + head + zeros(8) + kName));
    EXPECT_EQ(interfaceSwitch("can0", true, 7),
              hex("2C000000 1000 0500" + head + "01000000 01000000" + kName));
    EXPECT_EQ(interfaceSwitch("can0", false, 7),
              hex("2C000000 1000 0500" + head + "00000000 01000000" + kName));
    EXPECT_EQ(interfaceSettings("can0", {{500000, 875}, CanBitTiming{2000000, 750}, true, false}, 7),
              hex("90000000 1000 0500" + head + zeros(8) + kName + "6400 1200 0800 0100 63616E00" +
                  "5800 0200" + kTiming + kDataTiming + "0C00 0500 22000000 20000000"));
    EXPECT_EQ(interfaceSettings("can0", {{500000, 875}, {}, false, true}, 7),
              hex("6C000000 1000 0500" + head + zeros(8) + kName + "4000 1200 0800 0100 63616E00" +
                  "3400 0200" + kTiming + "0C00 0500 22000000 02000000"));
}

std::string describe(const Result<CanInterfaceState>& read) {
    if (!read) return read.error().message;
    const CanInterfaceState& state = read.value();
    return fmt::format("up {} {} mtu {}: {}/{} {}/{} mode {:x} state {} restart {}", state.up, state.kind,
                       state.mtu, state.bitTiming.bitrate, state.bitTiming.samplePoint,
                       state.dataBitTiming.bitrate, state.dataBitTiming.samplePoint, state.controlMode,
                       static_cast<int>(state.busState), state.restartMs);
}

TEST(CanInterfaceMessage, ReadsRepliesAndRefusesDamagedOnes) {
    const auto reply = hex("B8000000 1000 0000 07000000 00000000 0000 1801 05000000 43000000 00000000" +
                           kName + "0800 0400 48000000 0800 6F80 FFFFFFFF 7C00 1200 0800 0100 63616E00" +
                           "7000 0280" + kTiming + kDataTiming + "0C00 0500 00000000 22000000" +
                           "0800 0400 02000000 0800 0600 C8000000 0800 0300 00E1F505");
    const std::string unexpected = "unexpected netlink reply: Bad message";
    EXPECT_EQ(describe(readInterfaceReply(reply, 7)),
              "up true can mtu 72: 500000/875 2000000/750 mode 22 state 3 restart 200");
    EXPECT_EQ(describe(readInterfaceReply(reply, 8)), unexpected);
    EXPECT_EQ(readAcknowledgement(reply, 7).error().message, unexpected);
    for (std::size_t length = 0; length < reply.size(); ++length) {
        std::vector<std::uint8_t> cut(reply.begin(), reply.begin() + length);
        EXPECT_EQ(describe(readInterfaceReply(cut, 7)), unexpected);
        if (length < 32) continue;
        cut[0] = static_cast<std::uint8_t>(length);  // whole by its own account
        EXPECT_EQ(describe(readInterfaceReply(cut, 7)).substr(0, 8), "up true ");
        cut.assign(reply.begin(), reply.end());
        cut[length] ^= 0xFF;
        EXPECT_TRUE(readInterfaceReply(cut, 7)) << length;
    }
    const std::string error = "24000000 0200 0000 07000000 00000000";
    EXPECT_TRUE(readAcknowledgement(hex(error + zeros(20)), 7));
    EXPECT_EQ(describe(readInterfaceReply(hex(error + zeros(20)), 7)), unexpected);
    EXPECT_EQ(readAcknowledgement(hex(error + zeros(19)), 7).error().message, unexpected);
    EXPECT_EQ(readAcknowledgement(hex(error + "FFFFFFFF" + zeros(16)), 7).error().message,
              "netlink request: Operation not permitted");
}

TEST(NetlinkCanInterfaces, AsksTheKernel) {
    NetlinkCanInterfaces interfaces;
    EXPECT_EQ(interfaces.query("lo").value().mtu, 65536U);
    for (const std::string name : {"", "nosuch0", "longer-than-names-are"}) {
        const auto state = interfaces.query(name);
        ASSERT_FALSE(state);
        EXPECT_EQ(state.error().message, "CAN interface '" + name + "' not found");
        EXPECT_EQ(state.error().sysErrno, ENODEV);
    }
    EXPECT_EQ(interfaces.configure("lo", {{500000, 0}, CanBitTiming{}, false, false}).error().message,
              "data bit timing requires CAN FD");
}

/// An interface that takes what it is told, unless it refuses one of the requests.
class Fake final : public ICanInterfaces {
  public:
    CanInterfaceState state{true, "can", 16, {500000, 875}, {}, 0, CanBusState::errorPassive};
    std::string refused;  ///< the request that fails
    int failure = EPERM;
    std::string log;

    Result<CanInterfaceState> query(const std::string&) override {
        if (auto result = note("query"); !result) return result.error();
        return state;
    }
    Result<void> switchUp(const std::string&) override { return note("up"); }
    Result<void> switchDown(const std::string&) override { return note("down"); }
    Result<void> configure(const std::string&, const CanInterfaceSettings& settings) override {
        const CanBitTiming data = settings.dataBitTiming.value_or(CanBitTiming{});
        if (settings.fd) state.controlMode = CanInterfaceState::kFd;
        return note(fmt::format("{}/{} {}/{} {}{}", settings.bitTiming.bitrate,
                                settings.bitTiming.samplePoint, data.bitrate, data.samplePoint,
                                settings.fd ? "fd" : "classic", settings.listenOnly ? " listen" : ""));
    }

  private:
    Result<void> note(const std::string& request) {
        log += request + ", ";
        return request == refused ? Error::fromErrno(failure, request) : Result<void>();
    }
};

TEST(CanInterfaceSetUp, ChangesOnlyWhatDiffersAndSaysHowToMendTheRest) {
    using Config = CanChannelConfig;
    const std::string setcap =
        ": Operation not permitted. Setting the bitrate needs the right CAP_NET_ADMIN; grant it once in a "
        "terminal, then start the program again: `sudo setcap cap_net_admin+ep " +
        executablePath().string() + "`";
    const auto changed = [](const std::string& to) { return "down, " + to + ", up, query, state 3"; };
    const auto fdOn = [](Fake& l) {
        l.state.controlMode = CanInterfaceState::kFd;
        l.state.dataBitTiming = {2000000, 750};
    };
    const CanBitTiming same{2000000, 0};
    const CanBitTiming other{2000000, 800};
    const struct {
        std::function<void(Config&, Fake&)> change;  ///< of: can0 up with 500000/875, the same configured
        std::string outcome;
    } rows[] = {
        {[](Config&, Fake&) {}, "state 3"},
        {[](Config& c, Fake&) { c.bitrate->samplePoint = 800; }, changed("500000/800 0/0 classic")},
        {[](Config& c, Fake&) { c.bitrate->bitrate = 250000; }, changed("250000/0 0/0 classic")},
        {[](Config& c, Fake&) { c.listenOnly = true; }, changed("500000/0 0/0 classic listen")},
        {[](Config&, Fake& l) { l.state.controlMode = 2; }, changed("500000/0 0/0 classic")},
        {[](Config&, Fake& l) { l.state.up = false; }, "500000/0 0/0 classic, up, query, state 3"},
        {[&](Config&, Fake& l) { fdOn(l); }, changed("500000/0 0/0 classic")},
        {[](Config& c, Fake&) { c.fd = true; }, changed("500000/0 500000/0 fd")},
        {[&](Config& c, Fake& l) { fdOn(l), c.fd = true, c.dataBitrate = same; }, "state 3"},
        {[&](Config& c, Fake& l) { fdOn(l), c.fd = true, c.dataBitrate = other; },
         changed("500000/0 2000000/800 fd")},
        {[&](Config& c, Fake& l) { fdOn(l), c.fd = true, c.bitrate->bitrate = 1000000; },
         changed("1000000/0 2000000/750 fd")},
        {[](Config& c, Fake&) { c.bitrate.reset(), c.fd = true; }, "can0 is not in CAN FD mode"},
        {[](Config& c, Fake& l) { c.bitrate.reset(), l.state.up = false; },
         "can0 is down and no bitrate is configured: set the bitrate in the settings, or switch it on in a "
         "terminal: `sudo ip link set can0 up type can bitrate 500000`"},
        {[](Config& c, Fake& l) { c.bitrate->bitrate = 1, l.refused = "1/0 0/0 classic"; },
         "down, 1/0 0/0 classic, up, 1/0 0/0 classic" + setcap},
        {[](Config&, Fake& l) { l.state.up = false, l.refused = "up"; },
         "500000/0 0/0 classic, up, up" + setcap},
        {[](Config& c, Fake& l) { c.bitrate->bitrate = 1, l.refused = "down", l.failure = EBUSY; },
         "down, down: Device or resource busy"},
        {[](Config& c, Fake& l) { c.fd = true, l.state.kind = "vcan", l.state.mtu = 72; }, "state 1"},
        {[](Config& c, Fake& l) { c.fd = true, l.state.kind = "vcan"; },
         "can0 is not CAN FD capable. Change it in a terminal: `sudo ip link set can0 down && sudo ip link "
         "set can0 mtu 72 up`"},
        {[](Config&, Fake& l) { l.state.kind = "vcan", l.state.up = false; },
         "can0 is down. Switch it on in a terminal: `sudo ip link set can0 up`"},
        {[](Config&, Fake& l) { l.refused = "query", l.failure = ENODEV; },
         "CAN interface 'can0' not found: is the adapter connected? `ip -br link` lists the interfaces"},
        {[](Config& c, Fake& l) { c.interfaceName = "vcan5", l.refused = "query", l.failure = ENODEV; },
         "virtual CAN interface 'vcan5' does not exist. Create it in a terminal: `sudo modprobe vcan && "
         "sudo ip link add dev vcan5 type vcan && sudo ip link set vcan5 mtu 72 up`"},
    };
    for (const auto& row : rows) {
        Config config{.interfaceName = "can0", .bitrate = CanBitTiming{500000, 0}};
        Fake can0;
        row.change(config, can0);
        const auto state = setUpCanInterface(config, can0);
        const std::string end =
            state ? fmt::format("state {}", static_cast<int>(state.value())) : state.error().message;
        EXPECT_EQ(can0.log + end, "query, " + row.outcome);
    }
}

}  // namespace
}  // namespace lm::hal
