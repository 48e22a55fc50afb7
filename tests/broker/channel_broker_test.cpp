#include "broker/channel_broker.h"

#include <functional>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "broker/fake_can.h"

namespace lm::broker {
namespace {

using test::FakeCan;

class Handler final : public IFrameHandler {
  public:
    std::string log;
    std::function<void()> action = [] {};

    void onFrame(const hal::CanFrame& frame) override {
        log += hal::formatCanFrame(frame) + " ";
        action();
    }
    void onChannelEvent(const hal::CanChannelEvent& event) override {
        log += "event " + std::to_string(event.value) + " ";
        action();
    }
};

TEST(ChannelBroker, HandsFramesToThoseWhoAskedForThem) {
    const struct {
        std::vector<Filter> filters;
        std::string log;
    } rows[] = {
        {{{0x7E1, 0x7FF, FrameFormat::standard}}, "7E1#01 7E1#R "},
        {{{0x7E1, 0x1FFFFFFF, FrameFormat::extended}}, "000007E1#02 "},
        {{{0x7E1, 0x1FFFFFFF, FrameFormat::any}}, "7E1#01 000007E1#02 7E1#R "},
        {{{0x7E1, 0x7FF, FrameFormat::any}, {0x7E0, 0x7F0, FrameFormat::any}},
         "7E1#01 000007E1#02 7E2##003 000807E1#04 7E1#R "},  // once, though both match
        {{{0, 0, FrameFormat::standard}}, "7E1#01 7E2##003 7E1#R "},
        {{{0, 0, FrameFormat::any}}, "7E1#01 000007E1#02 7E2##003 000807E1#04 7E1#R "},
        {{{1, 1, FrameFormat::extended}}, "000007E1#02 000807E1#04 "},
        {{}, ""},
    };
    for (const auto& row : rows) {
        FakeCan bus;
        const auto channel = bus.openChannel({}).value();
        ChannelBroker broker(*channel);
        Handler all;
        Handler handler;
        EXPECT_EQ(broker.registerHandler({{0, 0, FrameFormat::any}}, all), 1U);
        EXPECT_EQ(broker.registerHandler(row.filters, handler), 2U);
        bus.receive({"7E1#01", "000007E1#02", "7E2##003", "000807E1#04", "7E1#R"});
        EXPECT_EQ(handler.log, row.log);
        EXPECT_EQ(all.log, "7E1#01 000007E1#02 7E2##003 000807E1#04 7E1#R ");
    }
}

TEST(ChannelBroker, RegistersAnyTimeButInsideACallback) {
    FakeCan bus;
    const auto channel = bus.openChannel({}).value();
    {
        ChannelBroker broker(*channel);
        Handler first;
        Handler second;
        const Filter any{0, 0, FrameFormat::any};
        EXPECT_EQ(broker.registerHandler({any}, first), 1U);
        EXPECT_EQ(broker.registerHandler({any}, second), 2U);
        broker.unregisterHandler(1);
        broker.unregisterHandler(77);
        EXPECT_EQ(broker.registerHandler({any}, first), 3U);
        bus.sink->onChannelEvent({.value = 5});
        EXPECT_EQ(first.log + second.log, "event 5 event 5 ");

        // Sending goes through while a callback runs; registering from another thread waits for its end.
        std::optional<std::thread> other;
        Handler third;
        first.action = [&] {
            EXPECT_TRUE(broker.send(hal::parseCanFrame("7E0#FF").value()));
            if (!other) other.emplace([&] { EXPECT_EQ(broker.registerHandler({any}, third), 4U); });
        };
        bus.receive({"001#", "002#"});
        other->join();
        EXPECT_EQ(third.log, "");
        EXPECT_EQ(bus.sent, std::vector<std::string>(2, "7E0#FF"));
        bus.gone = true;
        EXPECT_EQ(broker.send({}).error().message, "gone");
        bus.gone = false;

        third.action = [&] { broker.unregisterHandler(2); };
        EXPECT_DEATH(bus.receive({"003#"}), "lm: unregisterHandler called from inside a frame handler");
        third.action = [&] { broker.registerHandler({}, second); };
        EXPECT_DEATH(bus.sink->onChannelEvent({}), "lm: registerHandler called from inside a frame handler");
    }
    EXPECT_EQ(bus.sink, nullptr);
}

}  // namespace
}  // namespace lm::broker
