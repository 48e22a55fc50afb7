#include "xcp/master.h"

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

#include <gtest/gtest.h>

#include "xcp/daq_decoder.h"
#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::kConnected;
using test::ScriptedSlave;

MasterOptions quick() {
    MasterOptions options;
    options.t1 = 20;
    options.t7 = 0;
    return options;
}

class MasterTest : public ::testing::Test {
  protected:
    ~MasterTest() override { slave.expectDone(); }
    void connect() {
        slave.play("FF 00 > @");
        ASSERT_TRUE(master.connect());
    }
    /// The error's text, empty on success.
    template <typename T>
    static std::string failure(const Result<T>& result) {
        return result ? "" : result.error().text();
    }

    ScriptedSlave slave;
    Master master{slave, quick()};
};

TEST_F(MasterTest, CommandsNeedAConnection) {
    const std::string message = "XCP slave not connected";
    EXPECT_EQ(failure(master.getStatus()), message);
    EXPECT_EQ(failure(master.upload({}, 1)), message);
    EXPECT_EQ(failure(master.daqCapabilities()), message);
    EXPECT_EQ(failure(master.stopDaqOnce()), message);
    EXPECT_TRUE(master.disconnect());
    connect();
    slave.play("FD > FF 40 01 00 34 12; FE > FF");
    EXPECT_EQ(master.getStatus().value().sessionConfigurationId, 0x1234);
    EXPECT_TRUE(master.disconnect());
    EXPECT_FALSE(master.connected());
    EXPECT_EQ(master.synch().error().code, ErrorCode::notOpen);
}

TEST_F(MasterTest, ConnectReportsEveryFailure) {
    const struct {
        const char* script;
        const char* message;
    } cases[] = {
        {"FF 00; FF 00; FF 00", "CONNECT: no response from slave after 3 attempt(s)"},
        {"FF 00 > FE 25", "CONNECT: ERR_ACCESS_LOCKED (0x25)"},
        {"FF 00 > FE", "CONNECT: ERR_GENERIC (0x31)"},
        {"FF 00 > FF 05 00 08 08 00 01", "XCP response to CONNECT too short"},
        {"FF 00 > FF 05 06 08 08 00 01 01", "CONNECT: reserved address granularity"},
        {"FF 00 > FF 05 00 FF 08 00 01 01", "CONNECT: MAX_CTO 255 exceeds transport packet size 254"},
    };
    for (const auto& row : cases) {
        ScriptedSlave other(254);
        Master refused(other, quick());
        other.play(row.script);
        EXPECT_EQ(failure(refused.connect()), row.message);
        EXPECT_FALSE(refused.connected());
        other.expectDone();
    }
    slave.play("FF 01");
    EXPECT_EQ(failure(master.connect(ConnectMode::userDefined, 1)),
              "CONNECT: no response from slave after 1 attempt(s)");
}

TEST_F(MasterTest, TimedOutCommandIsRepeatedTwiceWithASynchBefore) {
    connect();
    slave.play("FD; FC > FE 00; FD; FC > FE 00; FD");
    EXPECT_EQ(failure(master.getStatus()), "GET_STATUS: no response from slave (t1)");
    EXPECT_EQ(master.statistics().timeouts, 3U);

    // The next command is kept from late answers by one SYNCH, which may stay unanswered.
    slave.play("FC; FD > FF 00 00 00 00 00; FD > FF 00 00 00 00 00");
    EXPECT_TRUE(master.getStatus());
    EXPECT_TRUE(master.getStatus());
}

TEST_F(MasterTest, UnansweredSynchEndsTheCommand) {
    connect();
    slave.play("FD; FC; FC > FF, FE 10; FC");
    const auto status = master.getStatus();
    EXPECT_EQ(failure(status), "GET_STATUS: SYNCH: no response from slave");
    EXPECT_EQ(status.error().code, ErrorCode::timeout);
    EXPECT_EQ(master.statistics().unexpectedResponses, 2U);
}

TEST_F(MasterTest, BusyIsRepeatedTwentyTimesButNotDaqActive) {
    connect();
    for (const char* const code : {"10", "12"}) {
        std::string script;
        for (int i = 0; i < 21; ++i) {
            script += std::string(i == 0 ? "" : "; ") + "FD > FE " + code;
        }
        slave.play(script);
        EXPECT_EQ(master.getStatus().error().code, ErrorCode::wouldBlock);
    }
    slave.play("FD > FE 10; FD > FF 00 00 00 00 00; FD > FE 11");
    EXPECT_TRUE(master.getStatus());
    EXPECT_EQ(failure(master.getStatus()), "GET_STATUS: ERR_DAQ_ACTIVE (0x11)");
    EXPECT_EQ(master.statistics().errorResponses, 44U);
}

TEST_F(MasterTest, LateAnswersAreNotTakenForOthers) {
    connect();
    // The answer of the first copy comes before SYNCH's, the second SYNCH's after the repeated command was
    // sent.
    slave.play(
        "F5 02; FC; FC > FF 11 22, FE 00; F5 02 > FE 00, FF 33 44; FC > FE 00; "
        "FD > FF 01 00 00 00 00");
    Master::Exchange rules;
    rules.minimumLength = 3;
    const auto data = master.transact(buildUpload(2), rules);
    ASSERT_TRUE(data);
    EXPECT_EQ(data.value().bytes[1], 0x33);
    EXPECT_EQ(master.getStatus().value().sessionStatus, 1);

    // Shorter than the command's layout: set aside for the one that fits; alone it counts after the timeout.
    slave.play("FD > FF, FF 02 00 00 00 00; FD > FF 00 00 00 00");
    EXPECT_EQ(master.getStatus().value().sessionStatus, 2);
    EXPECT_EQ(failure(master.getStatus()), "XCP response to GET_STATUS too short");

    // Received before the command was sent: the second copy of an answer.
    slave.play("FD; FC; FC; FC");
    std::thread early([&] {
        slave.awaitSent(10);
        slave.deliver("FF 09 00 00 00 00", 1);
    });
    EXPECT_EQ(failure(master.getStatus()), "GET_STATUS: SYNCH: no response from slave");
    early.join();
}

TEST_F(MasterTest, AnAnswerOwedForLongerIsAwaitedBeforeTheNextCommand) {
    MasterOptions options = quick();
    options.t1 = 200;
    ScriptedSlave other;
    Master patient(other, options);
    other.play("FF 00 > @; F5 01; FC > FE 00; F5 01 > FF 11; FC > FE 00; F5 01 > FF 22");
    ASSERT_TRUE(patient.connect());
    ASSERT_TRUE(patient.transact(buildUpload(1), {}));
    std::thread late([&] {
        other.awaitSent(5);
        other.deliver("FF 11");
    });
    EXPECT_EQ(patient.transact(buildUpload(1), {}).value().bytes[1], 0x22);
    late.join();
    EXPECT_EQ(patient.statistics().unexpectedResponses, 1U);
    other.expectDone();
}

TEST_F(MasterTest, RepeatedConnectAnswersAreDropped) {
    slave.play("FF 00; FF 00 > @; FB > @, FF 00 01 00 02 03 04 05");
    ASSERT_TRUE(master.connect());
    EXPECT_EQ(master.getCommModeInfo().value().driverVersion, 5);

    // After a lost command an UPLOAD answer is not taken for CONNECT's, even one that reads like it.
    slave.play("FD; FC; FC; FC");
    EXPECT_FALSE(master.getStatus());
    slave.play(
        "FF 00 > FF 01 02 03 04 05 06 07, FF 05 00 10 08 00 01 01; "
        "FF 00 > FF 05 00 20 08 00 01 01");
    ASSERT_TRUE(master.connect());
    EXPECT_EQ(master.connectInfo().maxCto, 0x20);
}

TEST_F(MasterTest, PendingExtendsTheWait) {
    MasterOptions options = quick();
    options.t1 = 400;
    options.synchRepeatLimit = 0;
    ScriptedSlave other;
    Master patient(other, options);
    other.play("FF 00 > @; FD");
    ASSERT_TRUE(patient.connect());
    const auto begin = std::chrono::steady_clock::now();
    std::thread pending([&] {
        other.awaitSent(2);
        std::this_thread::sleep_until(begin + std::chrono::milliseconds(100));
        other.deliver("FD 05");
    });
    EXPECT_EQ(failure(patient.getStatus()), "GET_STATUS: no response from slave (t1)");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    pending.join();
    EXPECT_EQ(patient.statistics().events, 1U);
}

TEST_F(MasterTest, AStopEndsEveryWait) {
    MasterOptions options;
    options.t1 = options.t7 = 3'600'000;
    const struct {
        const char* script;
        std::size_t sent;
    } cases[] = {{"FF 00 > @; FD", 2}, {"FF 00 > @; FD > FE 10", 2}};
    for (const auto& row : cases) {
        ScriptedSlave other;
        Master stuck(other, options);
        other.play(row.script);
        ASSERT_TRUE(stuck.connect());
        std::thread stopper([&] {
            other.awaitSent(row.sent);
            stuck.requestStop();
        });
        const auto status = stuck.getStatus();
        stopper.join();
        EXPECT_EQ(failure(status), "GET_STATUS: stopped");
        EXPECT_EQ(status.error().code, ErrorCode::closed);
        EXPECT_EQ(failure(stuck.setMta({})), "SET_MTA: stopped");
        other.play("FE");
        EXPECT_TRUE(stuck.disconnectWithoutWaiting());
        EXPECT_FALSE(stuck.connected());
    }

    const std::string packet = "FF 00";
    slave.endless = &packet;
    std::thread stopper([&] {
        slave.awaitSent(3);
        master.requestStop();
    });
    EXPECT_EQ(failure(master.connect(ConnectMode::normal, 0)), "CONNECT: stopped");
    stopper.join();
    slave.endless = nullptr;
    master.clearStop();
    connect();
}

TEST_F(MasterTest, StopOncePassesOverTheAnswerOfTheInterruptedCommand) {
    connect();
    master.requestStop();
    EXPECT_FALSE(master.getStatus());
    slave.play("DD 00 > FF");
    EXPECT_TRUE(master.stopDaqOnce());

    MasterOptions options;
    options.t1 = 3'600'000;
    ScriptedSlave other;
    Master stuck(other, options);
    other.play("FF 00 > @; FD; DD 00 > FF 00 00 00 00 00, FE 25");
    ASSERT_TRUE(stuck.connect());
    std::thread stopper([&] {
        other.awaitSent(2);
        stuck.requestStop();
    });
    EXPECT_FALSE(stuck.getStatus());  // owes its answer
    stopper.join();
    EXPECT_EQ(failure(stuck.stopDaqOnce()), "START_STOP_SYNCH: ERR_ACCESS_LOCKED (0x25)");
    other.expectDone();

    master.clearStop();
    slave.play("FD; FC; FC; FC");
    EXPECT_FALSE(master.getStatus());
    master.requestStop();
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * quick().t1));  // lost by now
    slave.play("DD 00 > FE 25, FF; DD 00; DD 00");
    EXPECT_EQ(failure(master.stopDaqOnce()), "START_STOP_SYNCH: ERR_ACCESS_LOCKED (0x25)");
    EXPECT_EQ(failure(master.stopDaqOnce()), "START_STOP_SYNCH: no response from slave (t1)");
    EXPECT_TRUE(master.stopDaqWithoutWaiting());
}

class Recorder final : public IMasterListener, public IDtoSink {
  public:
    void onEvent(std::uint8_t code, const std::uint8_t*, std::size_t length, ReceiveTime time) override {
        log += "EV" + std::to_string(code) + "/" + std::to_string(length) + "@" +
               std::to_string(time.hostNs) + " ";
    }
    void onServiceRequest(std::uint8_t code, const std::uint8_t*, std::size_t length) override {
        log += "SERV" + std::to_string(code) + "/" + std::to_string(length) + " ";
    }
    void onTransportEvent(const hal::CanChannelEvent& event) override {
        log += "BUS" + std::to_string(event.value) + " ";
    }
    void onDto(const std::uint8_t* data, std::size_t length, ReceiveTime) override {
        log += "DTO" + std::to_string(data[0]) + "/" + std::to_string(length) + " ";
    }
    std::string log;
};

TEST_F(MasterTest, HandsOnWhatIsNoAnswer) {
    connect();
    Recorder recorder;
    master.setListener(&recorder);
    master.setDtoSink(&recorder);
    for (const char* const packet :
         {"FD 06 01", "FD", "FC", "FC 02 03", "FB 01", "00", "FF", "FE 22", "", "FD 07"}) {
        slave.deliver(packet, 7);
    }
    master.onTransportEvent({.value = 9});
    EXPECT_EQ(recorder.log, "EV6/3@7 EV254/1@7 SERV0/1 SERV2/3 DTO251/2 DTO0/1 EV7/2@7 BUS9 ");
    EXPECT_FALSE(master.connected());
    const MasterStatistics statistics = master.statistics();
    EXPECT_EQ(statistics.events, 3U);
    EXPECT_EQ(statistics.dtos, 2U);
    EXPECT_EQ(statistics.unexpectedResponses, 2U);
}

TEST_F(MasterTest, ASessionMayEndRightBehindTheConnectAnswer) {
    slave.play("FF 00 > FD 07, @");  // an earlier session's end
    ASSERT_TRUE(master.connect());
    EXPECT_TRUE(master.connected());
    slave.play("FF 00 > @, FD 07");
    ASSERT_TRUE(master.connect());
    EXPECT_FALSE(master.connected());
}

TEST_F(MasterTest, RemovingTheDtoSinkWaitsForTheDeliveryInProgress) {
    struct Slow final : IDtoSink {
        void onDto(const std::uint8_t*, std::size_t, ReceiveTime) override {
            entered.count_down();
            proceed.wait();
            left = true;
        }
        std::latch entered{1};
        std::latch proceed{1};
        std::atomic<bool> left{false};
    } slow;
    master.setDtoSink(&slow);
    std::thread receiver([&] { slave.deliver("00"); });
    slow.entered.wait();
    std::thread remover([&] {
        master.setDtoSink(nullptr);
        EXPECT_TRUE(slow.left);
    });
    slow.proceed.count_down();
    remover.join();
    receiver.join();
    slave.deliver("00");
    EXPECT_EQ(master.statistics().dtos, 2U);
}

}  // namespace
}  // namespace lm::xcp
