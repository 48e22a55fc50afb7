#include "session/channel_pool.h"

#include <gtest/gtest.h>

#include "session/fake_can.h"

namespace lm::session {
namespace {

hal::CanChannelConfig configOf(bool fd, std::uint32_t bitrate, std::uint32_t dataBitrate) {
    hal::CanChannelConfig config;
    config.interfaceName = "can0";
    config.fd = fd;
    if (bitrate != 0) config.bitrate = hal::CanBitTiming{bitrate, 0};
    if (dataBitrate != 0) config.dataBitrate = hal::CanBitTiming{dataBitrate, 0};
    return config;
}

TEST(ChannelPool, SessionsOnOneInterfaceMustAgree) {
    const struct {
        hal::CanChannelConfig first;
        hal::CanChannelConfig second;
        const char* outcome;  // of the second; empty: it gets the first one's channel
    } rows[] = {
        {configOf(false, 500'000, 0), configOf(false, 0, 0), ""},
        {configOf(false, 0, 0), configOf(false, 500'000, 0), ""},
        {configOf(true, 500'000, 2'000'000), configOf(true, 500'000, 2'000'000), ""},
        {configOf(false, 500'000, 0), configOf(false, 250'000, 0),
         "can0: bitrate 250000 conflicts with 500000 of another ECU on this channel"},
        {configOf(true, 500'000, 2'000'000), configOf(true, 500'000, 4'000'000),
         "can0: data bitrate 4000000 conflicts with 2000000 of another ECU on this channel"},
        {configOf(true, 500'000, 0), configOf(false, 250'000, 0),
         "can0: CAN FD setting differs from another ECU on this channel"},
    };
    for (const auto& row : rows) {
        test::FakeCan bus;
        ChannelPool pool(bus);
        auto first = pool.acquire(row.first);
        auto second = pool.acquire(row.second);
        EXPECT_EQ(second.ok() ? "" : second.error().text(), row.outcome);
        EXPECT_TRUE(!second.ok() || first.value() == second.value());
        EXPECT_EQ(bus.opened, 1U);
        first = Error{};
        second = Error{};
        EXPECT_TRUE(pool.acquire(row.second).ok());
        EXPECT_EQ(bus.opened, 2U) << "opened anew when its sessions have gone";
    }
}

}  // namespace
}  // namespace lm::session
