#include <condition_variable>
#include <fstream>

#include <gtest/gtest.h>

#include "broker/fake_can.h"
#include "session/session.h"
#include "sim/a2l_writer.h"
#include "sim/ecu.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace lm::session {
namespace {

/// Simulated ECUs on one CAN bus, which answer before send() returns.
class CanSession : public testing::Test, private ISessionListener {
  protected:
    CanSession() {
        options_.maxDto = options_.maxCto = 8;
        options_.timestampSize = 2;
        boastful_ = options_;
        boastful_.maxDto = 64;
        listed_ = options_;
        listed_.can = "can0";
        listed_.canListIds = {0x123, 0x601};
        listed_.canListIdsVariable = true;
        std::ofstream(directory_.path() / "a2l") << sim::a2lText(options_, sim::Catalog(options_));
        bus_.onSend = [this](const hal::CanFrame& frame) {
            sim::Outbox out;
            ecus_[frame.id == 0x600   ? 0
                  : frame.id == 0x700 ? 1
                                      : 2]
                .receive({frame.data.data(), frame.length}, nowNs(), out);
            answer(frame, out);
        };
    }

    void answer(const hal::CanFrame& frame, const sim::Outbox& out) {
        for (const auto& packet : out.packets()) {
            hal::CanFrame answer{.timestampNs = nowNs(), .id = frame.id + 1, .flags = frame.flags};
            answer.length = static_cast<std::uint8_t>(packet.length);
            std::copy_n(out.bytes(packet).begin(), packet.length, answer.data.begin());
            bus_.sink->onFrames(&answer, 1);
        }
    }

    static std::int64_t nowNs() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

    Result<std::unique_ptr<Session>> create(
        std::uint32_t cmdId, const std::function<void(SessionConfig&)>& change = [](SessionConfig&) {}) {
        SessionConfig config;
        config.a2l = directory_.path() / "a2l";
        config.can = {"can0", 500'000, {}, false, cmdId, cmdId + 1, false};
        config.reconnect.policy = ReconnectPolicy::retryForever;
        // Too short to watch the data of any event: the ECU's status is watched.
        config.reconnect.interval = config.reconnect.heartbeat = std::chrono::milliseconds(3);
        change(config);
        auto session = Session::create(config, {}, pool_);
        if (session) session.value()->setListener(this);
        return session;
    }

    void onStateChanged(SessionState /*state*/, const std::string& message,
                        const std::string& /*hint*/) override {
        const std::lock_guard lock(mutex_);
        message_ = message;
        changed_.notify_all();
    }
    void awaitMessage(const std::string& beginning) {
        std::unique_lock lock(mutex_);
        const auto come = [&] { return message_.starts_with(beginning); };
        EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(60), come)) << message_;
    }

    lm::test::TempDir directory_;
    sim::Options options_;
    sim::Options boastful_;  ///< says a MAX_DTO that no frame of this bus holds
    sim::Options listed_;    ///< has identifiers for its lists, which only it tells
    std::array<sim::Ecu, 3> ecus_{sim::Ecu{options_, {}, nowNs()}, sim::Ecu{boastful_, {}, nowNs()},
                                  sim::Ecu{listed_, {}, nowNs()}};
    broker::test::FakeCan bus_;
    ChannelPool pool_{bus_};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string message_;
};

TEST_F(CanSession, TwoEcusShareLoadAndReconnectionOfOneChannel) {
    auto first = create(0x80000600);
    auto second = create(0x700);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(create(0x80000600).error().text(), "CAN-ID 0x601 is already used by another ECU on can0");
    ASSERT_TRUE(first.value()->open() && second.value()->open());

    bus_.statistics.framesLost = 5;
    ASSERT_TRUE(first.value()->startMeasurement({{"wave@0"}, {}, nullptr}));
    const std::vector<std::string> many = {"wave@0", "counter_10ms@0", "engine_speed@0"};
    // Frames of 8 bytes, every millisecond at 500 kbit/s: 160 bits for the first ECU, twice 135 for the
    // other.
    EXPECT_EQ(second.value()->startMeasurement({many, {}, nullptr}).error().text(),
              "estimated bus load on can0 86 % (this ECU 54 %, others 32 %) exceeds the limit of 80 %");

    bus_.gone = true;
    bus_.sink->onChannelEvent({hal::CanChannelEventKind::receiveFailed, 0, {}, 19});
    awaitMessage("connection lost: gone");
    bus_.gone = false;
    awaitMessage("reconnected after ");
    EXPECT_TRUE(second.value()->open() && second.value()->read(std::array{std::string("cal_gain")}).front());
    EXPECT_EQ(bus_.opened, 2U) << "opened once again for both";
    bus_.statistics.framesLost = 12;
    EXPECT_TRUE(first.value()->stopMeasurement());
    EXPECT_EQ(first.value()->statistics().mediumCount(kCanDropped), 7U);
    EXPECT_TRUE(second.value()->startMeasurement({many, {}, nullptr})) << "the load is given back";
    first.value().reset();
    const auto other = create(0x500);  // takes the place in memory that was freed
    EXPECT_TRUE(other && create(0x80000600)) << "so are the identifiers";
}

TEST_F(CanSession, AnEcuThatWasResetGetsWhatTheSessionWroteAgain) {
    ::setenv("XDG_STATE_HOME", directory_.path().c_str(), 1);
    const std::vector<std::string> names = {"cal_gain", "cal_mode_low", "cal_offsets[1][1]"};
    for (const std::uint8_t pages : {std::uint8_t{0}, std::uint8_t{2}}) {
        options_.paging.pages = pages;
        std::ofstream(directory_.path() / "a2l") << sim::a2lText(options_, sim::Catalog(options_));
        auto faults = sim::FaultPlan::parse({"restart:GET_PAG_PROCESSOR_INFO"});
        sim::Ecu ecu(options_, std::move(faults).value(), nowNs());
        bus_.onSend = [&](const hal::CanFrame& frame) {
            sim::Outbox out;
            ecu.receive({frame.data.data(), frame.length}, nowNs(), out);
            answer(frame, out);
        };
        const lm::test::LogCapture log;
        auto session = create(0x600, [](SessionConfig& config) {
            config.onReset = SessionConfig::OnReset::reapply;
            config.xcp.timeoutsMs = {30, 30, 30, 30, 30, 30, 30};
        });
        ASSERT_TRUE(session && session.value()->open());
        ASSERT_TRUE(session.value()->startMeasurement({{"wave@0"}, {}, nullptr}));
        for (const char* gain : {"1.5", "2.5"})
            ASSERT_TRUE(session.value()->write("cal_gain", gain, {}).value);
        ASSERT_TRUE(session.value()->write("cal_mode_low", "5", {}).value);
        ASSERT_TRUE(session.value()->write("cal_mode_signed", "3", {}).value);
        ASSERT_TRUE(session.value()->writeObject({.name = names[2], .text = "7"}, {}).value);
        ASSERT_TRUE(session.value()->write("cal_mode_signed", "0", {}).value);
        message_.clear();
        EXPECT_FALSE(
            session.value()->ask([](xcp::Master& master) { return master.pages().processorInfo(); }));
        awaitMessage("reconnected after ");
        const auto told = log.text();
        EXPECT_NE(told.find("4 of 4 object(s) that this session wrote are written again"), std::string::npos)
            << told;
        EXPECT_EQ(told.find("segment 0 (parameters_0)") != std::string::npos, pages != 0) << told;
        EXPECT_EQ(value::toDouble(session.value()->readObject(names[2]).value().numbers.front().physical), 7);
        const auto values = session.value()->read(std::span(names).first(2));
        EXPECT_EQ(value::toDouble(values[0].value().physical()), 2.5);
        EXPECT_EQ(value::toDouble(values[1].value().physical()), 5) << "of a word with others";
        // Both at the start, one after each write, both at the comparison and after it: none for a record.
        EXPECT_EQ(ecu.commands(sim::kBuildChecksum), pages == 0 ? 0U : 2 + 6 + 2 + 2);
        EXPECT_TRUE(session.value()->stopMeasurement());
    }
}

TEST_F(CanSession, AnIdentifierOfAListThatAnotherEcuHasEndsTheStart) {
    std::ofstream(directory_.path() / "a2l") << sim::a2lText(listed_, sim::Catalog(listed_));
    auto first = create(0x80000600);
    auto second = create(0x680);
    ASSERT_TRUE(first && second && second.value()->open());
    const auto measure = [&](std::vector<std::string> signals) -> Result<void> {
        const auto started = second.value()->startMeasurement({std::move(signals), {}, nullptr});
        return started ? second.value()->stopMeasurement() : started.error();
    };
    EXPECT_TRUE(measure({"wave@0", "counter_10ms@1"})) << "0x601 of the first has 29 bits";
    EXPECT_TRUE(measure({"wave@0"})) << "which gives 0x601 back";
    first.value().reset();
    first = create(0x600);
    ASSERT_TRUE(first);
    EXPECT_EQ(measure({"wave@0", "counter_10ms@1"}).error().text(),
              "CAN-ID 0x601 is already used by another ECU on can0");
}

TEST_F(CanSession, AFlappingControllerIsToldInMeasure) {
    const lm::test::LogCapture log;
    spdlog::default_logger()->set_level(spdlog::level::warn);
    {
        auto session = create(0x600);
        ASSERT_TRUE(session && session.value()->open());
        std::int64_t now = nowNs();
        const auto change = [&](hal::CanBusState state, int seconds) {
            now += seconds * std::int64_t{1'000'000'000};
            bus_.sink->onChannelEvent({hal::CanChannelEventKind::stateChanged, now, state, 0});
        };
        for (int i = 0; i < 1000; ++i) {
            change(hal::CanBusState::errorPassive, 0);
            change(hal::CanBusState::errorActive, 0);
        }
        change(hal::CanBusState::busOff, 1);
        change(hal::CanBusState::errorActive, 0);
        change(hal::CanBusState::busOff, 0);
        change(hal::CanBusState::errorWarning, 0);
        change(hal::CanBusState::errorActive, 0);
        change(hal::CanBusState::errorPassive, 11);
        change(hal::CanBusState::busOff, 1);
        bus_.state = hal::CanBusState::busOff;
        change(hal::CanBusState::errorActive, 1);
        change(hal::CanBusState::busOff, 1);
    }
    const std::string passive = "warning can0: error passive: check bit rate, wiring and termination";
    const std::string active = "warning can0: error active again";
    const std::string hides = " (from now on a change is told every 10 s at most, the others are counted)\n";
    const std::string off =
        "bus off, nothing is sent any more. Restart the controller in a terminal: "
        "`sudo ip link set can0 type can restart`";
    EXPECT_EQ(log.text(), passive + "\n" + active + "\n" + passive + "\n" + active + "\n" + passive + "\n" +
                              active + hides + "warning can0: " + off + " (1994 changes before it not told)" +
                              hides + passive + " (3 changes before it not told)" + hides +
                              "warning can0: " + off + hides +
                              "warning can0: 2 further change(s) of state not told, now " + off + "\n");
}

TEST_F(CanSession, ARestartByHandIsAskedForWhereItIsNeeded) {
    const struct {
        const char* kind;
        std::uint32_t restartMs;
        const char* told;
    } rows[] = {
        {"can", 0,
         "bus off, nothing is sent any more. Restart the controller in a terminal: `sudo ip link set can0 "
         "type can restart`"},
        {"can", 200, "bus off, the controller restarts by itself after 200 ms"},
        {"vcan", 0, "bus off"}};
    for (const auto& row : rows) {
        bus_.interface.kind = row.kind;
        bus_.interface.restartMs = row.restartMs;
        const lm::test::LogCapture log;
        spdlog::default_logger()->set_level(spdlog::level::warn);
        auto session = create(0x600);
        ASSERT_TRUE(session && session.value()->open());
        bus_.sink->onChannelEvent(
            {hal::CanChannelEventKind::stateChanged, nowNs(), hal::CanBusState::busOff, 0});
        EXPECT_EQ(log.text(), std::string("warning can0: ") + row.told + "\n");
    }
}

TEST_F(CanSession, AnOverloadToldInBothWaysCountsOnce) {
    options_.overload = sim::OverloadIndication::topBit;
    auto session = create(0x600);
    ASSERT_TRUE(session && session.value()->open());
    ASSERT_TRUE(session.value()->startMeasurement({{"wave@0"}, {}, nullptr}));
    bus_.receive({"601#FD06"});
    EXPECT_EQ(session.value()->statistics().overloads, 1U) << "although it said to mark its DTOs";
    bus_.receive({"601#80.00.00.00.00.00.00.00"});
    EXPECT_EQ(session.value()->statistics().overloads, 1U);
    bus_.receive({"601#80.00.00.00.00.00.00.00"});
    EXPECT_EQ(session.value()->statistics().overloads, 2U);

    const lm::test::LogCapture log;
    spdlog::default_logger()->set_level(spdlog::level::warn);
    bus_.receive({"601#FD07", "601#FD07"});
    EXPECT_EQ(log.text(), "warning the ECU ended the session (EV_SESSION_TERMINATED)\n");
}

}  // namespace
}  // namespace lm::session
