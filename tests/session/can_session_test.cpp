#include <condition_variable>
#include <fstream>
#include <mutex>

#include <gtest/gtest.h>

#include "session/fake_can.h"
#include "session/session.h"
#include "sim/a2l_writer.h"
#include "sim/ecu.h"
#include "support/temp_dir.h"

namespace lm::session {
namespace {

/// Simulated ECUs on one CAN bus: each answers what is sent to its identifier before send() returns.
class CanSession : public testing::Test, private ISessionListener {
  protected:
    CanSession() {
        options_.maxCto = 8;
        options_.maxDto = 8;
        options_.timestampSize = 2;
        std::ofstream(a2l()) << sim::a2lText(options_, sim::Catalog(options_));
        bus_.onSend = [this](const hal::CanFrame& frame) {
            sim::Ecu& ecu = frame.id == 0x600 ? first_ : second_;
            sim::Outbox out;
            ecu.receive({frame.data.data(), frame.length}, nowNs(), out);
            for (const auto& packet : out.packets()) {
                hal::CanFrame answer;
                answer.timestampNs = nowNs();
                answer.id = frame.id + 1;
                answer.length = static_cast<std::uint8_t>(packet.length);
                std::copy_n(out.bytes(packet).begin(), packet.length, answer.data.begin());
                bus_.sink->onFrames(&answer, 1);
            }
        };
    }

    std::filesystem::path a2l() const { return directory_.path() / "ecu.a2l"; }
    static std::int64_t nowNs() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

    Result<std::unique_ptr<Session>> create(std::uint32_t cmdId) {
        SessionConfig config;
        config.a2l = a2l();
        config.can.interface = "can0";
        config.can.bitrate = 500'000;
        config.can.cmdId = cmdId;
        config.can.resId = cmdId + 1;
        config.reconnect.policy = ReconnectPolicy::retryForever;
        // Too short to watch the data of any event: the ECU's status is watched.
        config.reconnect.interval = config.reconnect.heartbeat = std::chrono::milliseconds(3);
        auto session = Session::create(config, {}, pool_);
        if (session.ok()) session.value()->setListener(this);
        return session;
    }

    void onStateChanged(SessionState /*state*/, const std::string& message) override {
        const std::lock_guard lock(mutex_);
        message_ = message;
        changed_.notify_all();
    }
    void awaitMessage(const std::string& beginning) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(60), [&] {
            return message_.starts_with(beginning);
        })) << message_;
    }

    lm::test::TempDir directory_;
    sim::Options options_;
    sim::Ecu first_{options_, {}, nowNs()};
    sim::Ecu second_{options_, {}, nowNs()};
    test::FakeCan bus_;
    ChannelPool pool_{bus_};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string message_;
};

TEST_F(CanSession, TwoEcusShareLoadAndReconnectionOfOneChannel) {
    auto first = create(0x600);
    auto second = create(0x700);
    ASSERT_TRUE(first.ok() && second.ok());
    EXPECT_EQ(create(0x600).error().text(), "CAN-ID 0x601 is already used by another ECU on can0");
    for (Session* session : {first.value().get(), second.value().get()}) {
        ASSERT_TRUE(session->open());
        EXPECT_TRUE(session->write("cal_gain", session == first.value().get() ? "2" : "3", false));
    }
    EXPECT_EQ(second.value()->read("cal_gain").value().physical, 3);

    bus_.statistics.framesLost = 5;
    const auto started = first.value()->startMeasurement({{"wave@0"}, {}, nullptr});
    ASSERT_TRUE(started.ok()) << started.error().text();
    const auto refused =
        second.value()->startMeasurement({{"wave@0", "counter_10ms@0", "engine_speed@0"}, {}, nullptr});
    ASSERT_FALSE(refused.ok());
    // Frames of 8 bytes have 135 bits at most: 27 % of 500 kbit/s for each that is sent every millisecond.
    EXPECT_EQ(refused.error().text(),
              "estimated bus load on can0 81 % (this ECU 54 %, others 27 %) exceeds the limit of 80 %");

    bus_.fail("CAN interface 'can0' not found");
    bus_.sink->onChannelEvent({hal::CanChannelEventKind::receiveFailed, 0, {}, 19});
    awaitMessage("connection lost: CAN interface 'can0' not found");
    bus_.fail("");
    awaitMessage("reconnected after ");
    EXPECT_TRUE(second.value()->open());
    EXPECT_EQ(second.value()->read("cal_gain").value().physical, 3);
    EXPECT_EQ(bus_.opened.size(), 2U) << "opened once again for both";
    bus_.statistics.framesLost = 12;
    EXPECT_TRUE(first.value()->stopMeasurement());
    EXPECT_EQ(first.value()->statistics().canDropped, 7U);
    EXPECT_TRUE(second.value()->startMeasurement({{"wave@0"}, {}, nullptr})) << "the load is given back";
    first.value().reset();
    EXPECT_TRUE(create(0x600).ok()) << "so are the identifiers";
}

}  // namespace
}  // namespace lm::session
