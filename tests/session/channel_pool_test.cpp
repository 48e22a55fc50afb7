#include "session/channel_pool.h"

#include <gtest/gtest.h>

#include "session/fake_can.h"

namespace lm::session {
namespace {

using Rate = std::optional<std::uint32_t>;

hal::CanChannelConfig configOf(const char* name, bool fd, Rate bitrate, Rate dataBitrate) {
    hal::CanChannelConfig config;
    config.interfaceName = name;
    config.fd = fd;
    if (bitrate) config.bitrate = hal::CanBitTiming{*bitrate, 0};
    if (dataBitrate) config.dataBitrate = hal::CanBitTiming{*dataBitrate, 0};
    return config;
}

TEST(ChannelPool, SessionsOnOneInterfaceMustAgree) {
    const struct {
        hal::CanChannelConfig first;
        hal::CanChannelConfig second;
        const char* outcome;  // of the second; empty: it gets the first one's channel
    } rows[] = {
        {configOf("can0", false, 500'000, {}), configOf("can0", false, {}, {}), ""},
        {configOf("can0", false, {}, {}), configOf("can0", false, 500'000, {}), ""},
        {configOf("can0", true, 500'000, 2'000'000), configOf("can0", true, 500'000, 2'000'000), ""},
        {configOf("can0", false, 500'000, {}), configOf("can0", false, 250'000, {}),
         "can0: bitrate 250000 conflicts with 500000 of another ECU on this channel"},
        {configOf("can0", true, 500'000, 2'000'000), configOf("can0", true, 500'000, 4'000'000),
         "can0: data bitrate 4000000 conflicts with 2000000 of another ECU on this channel"},
        {configOf("can0", true, 500'000, {}), configOf("can0", false, 250'000, {}),
         "can0: CAN FD setting differs from another ECU on this channel"},
    };
    for (const auto& row : rows) {
        test::FakeCan bus;
        ChannelPool pool(bus);
        auto first = pool.acquire(row.first);
        ASSERT_TRUE(first.ok());
        const auto second = pool.acquire(row.second);
        EXPECT_EQ(second.ok() ? "" : second.error().text(), row.outcome);
        EXPECT_TRUE(!second.ok() || first.value() == second.value());
        EXPECT_EQ(bus.opened.size(), 1U);
    }
}

TEST(ChannelPool, ChannelAndIdentifiersAreFreeAgainWhenTheirSessionsHaveGone) {
    test::FakeCan bus;
    ChannelPool pool(bus);
    const int a = 0;
    const int b = 0;
    auto channel = pool.acquire(configOf("can0", false, 500'000, {}));
    ASSERT_TRUE(channel.ok());
    EXPECT_TRUE(channel.value()->registerIds(&a, {0x7E8, 0x80000123}));
    const auto refused = channel.value()->registerIds(&b, {0x7E9, 0x80000123});
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code, ErrorCode::alreadyOpen);
    EXPECT_EQ(refused.error().text(), "CAN-ID 0x123 is already used by another ECU on can0");
    EXPECT_TRUE(channel.value()->registerIds(&a, {0x7E9, 0x7E8})) << "what was refused claimed nothing";
    EXPECT_TRUE(pool.acquire(configOf("can1", false, {}, {})).value()->registerIds(&b, {0x7E8}));

    channel.value()->releaseIds(&a);
    EXPECT_TRUE(channel.value()->registerIds(&b, {0x7E9, 0x80000123}));
    channel = Error{};
    EXPECT_TRUE(pool.acquire(configOf("can0", true, 250'000, {})).ok());
    EXPECT_EQ(bus.opened, (std::vector<std::string>{"can0", "can1", "can0"}));
    EXPECT_TRUE(bus.config.fd);
}

}  // namespace
}  // namespace lm::session
