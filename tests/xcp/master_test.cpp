#include "xcp/master.h"

#include <chrono>
#include <future>

#include <gtest/gtest.h>

#include "xcp/daq_decoder.h"
#include "xcp/scripted_slave.h"
#include "xcp/transport_event.h"

namespace lm::xcp {
namespace {

using namespace std::chrono_literals;
using test::Bench;

constexpr std::int64_t kMillisecond = 1'000'000;

/// Timeouts, error responses, unexpected responses.
std::string counts(const Bench& bench) {
    const MasterStatistics statistics = bench.master.statistics();
    return fmt::format("{} {} {}", statistics.timeouts, statistics.errorResponses,
                       statistics.unexpectedResponses);
}

TEST(Master, SendsRepeatsAndTakesExactlyWhatItShould) {
    const struct {
        const char* commands;
        const char* script;
        const char* results;
        const char* counts;
    } rows[] = {
        {"status; upload 1; stopOnce; disconnect", "",
         "XCP slave not connected; XCP slave not connected; XCP slave not connected; ok", "0 0 0"},
        {"connect; status; disconnect; status", "FF 00 > @; FD > FF 40 01 00 34 12; FE > FF",
         "ok; 40; ok; XCP slave not connected", "0 0 0"},
        // CONNECT
        {"connect", "FF 00; FF 00; FF 00", "CONNECT: no response from slave after 3 attempt(s)", "3 0 0"},
        {"connect; status", "FF 00 > FE 25", "CONNECT: ERR_ACCESS_LOCKED (0x25); XCP slave not connected",
         "0 1 0"},
        {"connect", "FF 00 > FE", "CONNECT: ERR_GENERIC (0x31)", "0 1 0"},
        {"connect", "FF 00 > FF 05 00 08 08 00 01", "XCP response to CONNECT too short", "0 0 0"},
        {"connect; status", "FF 00 > FF 05 00 FF 08 00 01 01",
         "CONNECT: MAX_CTO 255 exceeds transport packet size 254; XCP slave not connected", "0 0 0"},
        // A timeout: SYNCH and repeat, twice. A SYNCH keeps the next command from late answers; a lost one is
        // repeated.
        {"connect; status; status; status",
         "FF 00 > @; FD; FC > FE 00; FD; FC > FE 00; FD; FC; FC > FE 00; FC > FE 00; FD > FF 01 00 00 00 00; "
         "FD > FF 02 "
         "00 00 00 00",
         "ok; GET_STATUS: no response from slave (t1); 01; 02", "4 0 0"},
        {"connect; status", "FF 00 > @; FD; FC; FC > FF, FE 10; FC",
         "ok; GET_STATUS: SYNCH: no response from slave", "4 0 2"},
        {"connect; status; status", "FF 00 > @; FD > FE 10; FD > FE 12; FD > FF 00 00 00 00 00; FD > FE 11",
         "ok; 00; GET_STATUS: ERR_DAQ_ACTIVE (0x11)", "0 3 0"},
        // Late: the first copy's answer before SYNCH's, the second SYNCH's after the repeated command was
        // sent.
        {"connect; fetch; status",
         "FF 00 > @; F5 02; FC; FC > FF 11 22, FE 00; FC > FE 00; F5 02 > FE 00, FF 33 44; FD > FF 01 00 00 "
         "00 00",
         "ok; FF 33 44; 01", "2 0 2"},
        // Shorter than the layout: set aside for the one that fits; alone it counts after the timeout.
        {"connect; status; status", "FF 00 > @; FD > FF, FF 02 00 00 00 00; FD > FF 00 00 00 00",
         "ok; 02; XCP response to GET_STATUS too short", "0 0 0"},
        // What another master's SYNCH was answered with is no refusal.
        {"connect", "FF 00 > FE 00, @", "ok", "0 0 1"},
        // The second CONNECT's answer is not GET_STATUS's.
        {"connect; status", "FF 00; FF 00 > @; FC > @, FE 00; FD > FF 01 00 00 00 00", "ok; 01", "1 0 1"},
        // After a lost command an UPLOAD answer is not taken for CONNECT's, even one that reads like it.
        {"connect; status; connect; upload 1",
         "FF 00 > @; FD; FC; FC; FC; FF 00 > FF 01 02 03 04 05 06 07, FF 05 00 10 08 00 01 01; "
         "FF 00 > FF 05 01 20 00 08 01 01; FC > FE 00; F4 01 00 01 12 34 56 78 > FF 42",
         "ok; GET_STATUS: SYNCH: no response from slave; ok; 42", "5 0 2"},
        // An earlier session's end, and this one's right behind the answer.
        {"connect; status", "FF 00 > FD 07, @; FD > FF 00 00 00 00 00", "ok; 00", "0 0 0"},
        {"connect; status", "FF 00 > @, FD 07", "ok; XCP slave not connected", "0 0 0"},
        // A stop reaches a connected slave all the same.
        {"connect; requestStop; status; stopOnce; stopOnce; disconnectBlindly; status",
         "FF 00 > @; DD 00 > FF; DD 00; FE",
         "ok; ok; GET_STATUS: stopped; ok; START_STOP_SYNCH: no response from slave (t1); ok; "
         "XCP slave not connected",
         "1 0 0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.script);
        Bench bench(row.script);
        EXPECT_EQ(bench.run(row.commands), row.results);
        EXPECT_EQ(counts(bench), row.counts);
    }
}

TEST(Master, ConfirmsThatAnswersBelongToTheirCommands) {
    const struct {
        const char* commands;
        const char* script;
        const char* results;
    } rows[] = {
        {"confirm; fetch; confirm; confirm", "; F5 02 > FF 11 11; FC > FE 00",
         "in step; FF 11 11; in step; in step"},
        // The copy of the first answer passes for the second; the one left over comes early or before
        // SYNCH's.
        {"fetch; fetch; confirm; fetch; confirm",
         "; F5 02 > FF 11 11; F5 02 > FF 11 11, FF 22 22; FC > FE 00; F5 02 > FF 22 22; FC > FE 00",
         "FF 11 11; FF 11 11; out of step; FF 22 22; in step"},
        {"fetch; fetch; confirm; fetch",
         "; F5 02 > FF 11 11; F5 02 > FF 11 11; FC > FF 22 22, FE 00; F5 02 > FF 22 22",
         "FF 11 11; FF 11 11; out of step; FF 22 22"},
        // A shift that a short answer sets right again: the second answer to fetch passes for SET_MTA's,
        // whose own is too short for UPLOAD.
        {"fetch; fetch; upload 8; confirm",
         "; F5 02 > FF 11 11; F5 02 > FF 11 11; F6 00 00 01 78 56 34 12 > FF 22 22; "
         "F5 07 > FF, FF 01 02 03 04 05 06 07; F5 01 > FF 08; FC > FE 00",
         "FF 11 11; FF 11 11; 01 02 03 04 05 06 07 08; out of step"},
        // A slave that answers everything twice is understood, one that says two things is not. No SYNCH goes
        // between commands that share a pointer.
        {"uploadInStep 8; fetchInStep",
         "; F6 00 00 01 78 56 34 12 > FF, FF; F5 07 > FF 01 02 03 04 05 06 07, FF 01 02 03 04 05 06 07; "
         "F5 01 > FF 08, FF 08; FC > FE 00, FE 00; F5 02 > FF 11 11, FF 22 22; FC > FE 00; "
         "F5 02 > FF 11 11, FF 22 22; FC > FE 00; F5 02 > FF 11 11, FF 22 22; FC > FE 00",
         "01 02 03 04 05 06 07 08; the ECU's answers do not fit the commands sent to it"},
        {"fetch; confirm; fetch", "; F5 02 > FF 11 11; FC > FE 00; F5 02 > FE 00, FF 22 22",
         "FF 11 11; in step; FF 22 22"},
        // A SYNCH that stays unanswered is sent again; a slave that was seen to answer has to.
        {"fetch; fetch; confirm",
         "; F5 02 > FF 11 11; F5 02 > FF 11 11; FC; FD; FC > FF 22 22, FE 00, FF 00 00 00 00 00, FE 00; "
         "FC > FE 00",
         "FF 11 11; FF 11 11; out of step"},
        {"fetch; confirm; fetch; confirm; status",
         "; F5 02 > FF 11 11; FC > FE 00; F5 02 > FF 22 22; FC; FC; FC; FC; FC; FC",
         "FF 11 11; in step; FF 22 22; SYNCH: no response from slave; GET_STATUS: SYNCH: no response from "
         "slave"},
        // One that puts SYNCH off knows it.
        {"fetch; confirm", "; F5 02 > FF 11 11; FC > FD 05; FC > FE 00, FE 00", "FF 11 11; in step"},
        // One that answers the status but no SYNCH, or answers it oddly, is asked for the status from then
        // on. After an answer that was lost the status shows that no more follow.
        {"fetch; confirm; fetch; confirm; status; confirm",
         "; F5 02 > FF 11 11; FC; FD > FF 00 00 00 00 00; FC; FD > FF 00 00 00 00 00; FD > FF 00 00 00 00 "
         "00; "
         "F5 02 > FF 22 22; FD > FF 00 00 00 00 00; FD > FF 00 00 00 00 00; FD > FF 01 00 00 00 00; FD > FF "
         "01 00 00 00 00; FD > FF 00 00 00 00 00, FF 00 00 00 00 00",
         "FF 11 11; in step; FF 22 22; in step; 01; out of step"},
        {"fetch; confirm; fetch; status",
         "; F5 02 > FF 11 11; FC > FE 20; FD > FF 00 00 00 00 00; FC > FE 20; "
         "FD > FF 00 00 00 00 00; FD > FF 00 00 00 00 00; F5 02; FC; FC; FC; "
         "FD > FF 00 00 00 00 00; FD > FF 07 00 00 00 00",
         "FF 11 11; in step; UPLOAD: SYNCH: no response from slave; 07"},
        // One that answers SYNCH after all was late: its status shows nothing, and SYNCH is sent again.
        {"fetch; confirm; fetch; fetch; confirm",
         "; F5 02 > FF 11 11; FC; FD > FF 00 00 00 00 00; FC; FD > FF 00 00 00 00 00; FD > FF 00 00 00 00 "
         "00; F5 02 > FE 00, FE 00, FF 22 22; F5 02 > FF 33 33; FC > FE 00",
         "FF 11 11; in step; FF 22 22; FF 33 33; in step"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.script);
        Bench bench(std::string("FF 00 > @") + row.script);
        EXPECT_EQ(bench.run(std::string("connect; ") + row.commands), std::string("ok; ") + row.results);
    }
}

TEST(Master, BusyIsRepeatedTwentyTimes) {
    std::string script = "FF 00 > @";
    for (int i = 0; i < 21; ++i) {
        script += "; FD > FE 10";
    }
    Bench bench(script);
    EXPECT_EQ(bench.run("connect; status"), "ok; GET_STATUS: ERR_CMD_BUSY (0x10)");
}

TEST(Master, PendingExtendsTheWait) {
    Bench bench("FF 00 > @; FD", {.t1 = 400, .synchRepeatLimit = 0});
    bench.run("connect");
    const std::int64_t begin = bench.clock.nowNs();
    bench.clock.at(begin + 100 * kMillisecond, [&] { bench.slave.deliver("FD 05"); });
    EXPECT_EQ(bench.run("status"), "GET_STATUS: no response from slave (t1)");
    EXPECT_EQ(bench.clock.nowNs() - begin, 500 * kMillisecond);
}

TEST(Master, WhatHappensDuringAWaitCounts) {
    const auto stop = [](Bench& bench) { bench.stop.request(); };
    const struct {
        const char* script;
        std::size_t sent;  ///< packets before `then`
        std::function<void(Bench&)> then;
        const char* commands;
        const char* results;
    } rows[] = {
        {"FF 00", 1, stop, "connect", "CONNECT: stopped"},
        {"FF 00 > @; FD > FE 10", 2, stop, "connect; status", "ok; GET_STATUS: stopped"},
        // The interrupted command owes its answer, which is not the one of the stop.
        {"FF 00 > @; FD; DD 00 > FF 00 00 00 00 00, FE 25", 2, stop, "connect; status; stopOnce",
         "ok; GET_STATUS: stopped; START_STOP_SYNCH: ERR_ACCESS_LOCKED (0x25)"},
        // An answer received before the command was sent is dropped.
        {"FF 00 > @; FD; FC; FC; FC", 2, [](Bench& bench) { bench.slave.deliver("FF 09 00 00 00 00", 1); },
         "connect; status", "ok; GET_STATUS: SYNCH: no response from slave"},
        // A slave that ended the session is told to stop all the same, once.
        {"FF 00 > @; FD; FF 00 > @; DD 00 > FF; FE > FF", 2,
         [](Bench& bench) {
             bench.slave.deliver("FD 07");
             bench.stop.request();
         },
         "connect; status; stopUnconnected", "ok; GET_STATUS: stopped; ok"},
    };
    for (const auto& row : rows) {
        Bench bench(row.script, {.t7 = 3'600'000});
        bench.slave.after(
            row.sent, [&] { bench.clock.at(bench.clock.nowNs() + kMillisecond, [&] { row.then(bench); }); });
        EXPECT_EQ(bench.run(row.commands), row.results);
        EXPECT_LE(bench.clock.nowNs(), 6'000 * kMillisecond);
    }
}

struct Recorder final : IMasterListener, IDtoSink {
    void onEvent(std::uint8_t code, const std::uint8_t*, std::size_t length, ReceiveTime time) override {
        log += fmt::format("EV{}/{}@{} ", code, length, time.hostNs);
    }
    void onServiceRequest(std::uint8_t code, const std::uint8_t*, std::size_t length) override {
        log += fmt::format("SERV{}/{} ", code, length);
    }
    void onTransportEvent(const TransportEvent& event) override {
        log += fmt::format("LOST{} ", std::get<PacketsLost>(event.what).count);
    }
    void onDto(const std::uint8_t* data, std::size_t length, ReceiveTime) override {
        log += fmt::format("DTO{}/{} ", data[0], length);
    }
    std::string log;
};

TEST(Master, HandsOnWhatIsNoAnswer) {
    Bench bench("FF 00 > @");
    bench.run("connect");
    Recorder recorder;
    bench.master.setListener(&recorder);
    bench.master.setDtoSink(&recorder);
    for (const char* const packet :
         {"FD 06 01", "FD", "FC", "FC 02 03", "FB 01", "00", "FF", "FE 22", "", "FD 07"}) {
        bench.slave.deliver(packet, 7);
    }
    bench.master.onTransportEvent({PacketsLost{9}});
    EXPECT_EQ(recorder.log, "EV6/3@7 EV254/1@7 SERV0/1 SERV2/3 DTO251/2 DTO0/1 EV7/2@7 LOST9 ");
    EXPECT_FALSE(bench.master.connected());
    EXPECT_EQ(counts(bench), "0 0 2");
    EXPECT_EQ(bench.master.statistics().events, 3U);
    EXPECT_EQ(bench.master.statistics().dtos, 2U);
}

TEST(Master, RemovingTheDtoSinkWaitsForTheDeliveryInProgress) {
    struct Slow final : IDtoSink {
        explicit Slow(Master& of) : master(of) {}
        void onDto(const std::uint8_t*, std::size_t, ReceiveTime) override {
            removed = std::async(std::launch::async, [this] { master.setDtoSink(nullptr); });
            EXPECT_EQ(removed.wait_for(50ms), std::future_status::timeout);
        }
        Master& master;
        std::future<void> removed;
    };
    Bench bench("FF 00 > @");
    bench.run("connect");
    Slow slow(bench.master);
    bench.master.setDtoSink(&slow);
    bench.slave.deliver("00");
    slow.removed.wait();
    bench.slave.deliver("00");
    EXPECT_EQ(bench.master.statistics().dtos, 2U);
}

}  // namespace
}  // namespace lm::xcp
