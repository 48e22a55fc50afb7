#include "sim/ecu.h"

#include <gtest/gtest.h>

#include "sim/sim_bench.h"

namespace lm::sim {
namespace {

/// Starts one list on an event: a counter and, as given, one more signal of the catalogue.
Packets measuring(const SimBench& bench, std::uint8_t event, const std::string& signal,
                  std::uint8_t prescaler = 1) {
    const Catalog& catalog = bench.ecu.catalog();
    const auto entry = [&](const std::string& name) {
        const Row* row = catalog.find(name);
        std::array<std::uint8_t, 4> address{};
        writeLittle(address.data(), row->address);
        return fmt::format("E1 FF {:02X} {:02X} {}", row->size(), row->extension, hexOf(address));
    };
    const std::vector<std::string> counters{"counter_1ms", "counter_10ms", "counter_100ms", "counter_async"};
    return {"FF 00",
            "D6",
            "D5 00 01 00",
            "D4 00 00 00 02",
            "D3 00 00 00 00 01",
            "D3 00 00 00 01 01",
            "E2 00 00 00 00 00",
            entry(counters[event]),
            "E2 00 00 00 01 00",
            entry(signal),
            fmt::format("E0 10 00 00 {:02X} 00 {:02X} 00", event, prescaler),
            "DE 02 00 00",
            "DD 01"};
}

TEST(Ecu, KeepsTheOrderOfEventsAndTheGapsOfTheNonCyclicOne) {
    SimBench bench;
    bench.drive(measuring(bench, kEventAsync, "tooth_gap", 3));
    const Packets packets = bench.pass(400);
    std::int64_t timeMs = 0;
    std::size_t at = 0;
    for (std::int64_t n = 1; timeMs + asyncIntervalMs(n - 1) <= 400; ++n) {
        timeMs += asyncIntervalMs(n - 1);
        EXPECT_GE(asyncIntervalMs(n), 5);
        EXPECT_LE(asyncIntervalMs(n), 50);
        if (n % 3 != 0) continue;
        ASSERT_LT(at + 1, packets.size());
        const std::vector<std::uint8_t> dto = bytesOf(packets[at]);
        const std::vector<std::uint8_t> gap = bytesOf(packets[at + 1]);
        EXPECT_EQ(readLittle<std::uint32_t>(&dto[2]), timeMs * 1000);
        EXPECT_EQ(readLittle<std::uint32_t>(&dto[6]), n);
        EXPECT_EQ(readLittle<std::uint16_t>(&gap[2]), asyncIntervalMs(n));
        at += 2;
    }
    EXPECT_EQ(at, packets.size());
    EXPECT_GT(at, 0U);
}

TEST(Ecu, RunsItsOwnClock) {
    Options options;
    options.clockPpm = 100000;
    options.clockStart = 0xFFFFFFFF;
    SimBench bench(options);
    bench.drive(measuring(bench, kEvent10ms, "gear"));
    EXPECT_EQ(bench.pass(10), (Packets{"00 00 0F 27 00 00 01 00 00 00", "01 00 00"}));
    EXPECT_EQ(bench.pass(81).size(), 18U);  // 91 ms of the host are 100 ms of the ECU
    EXPECT_EQ(bench.ecu.nextDueNs(), 91'818'182);
}

TEST(Ecu, TurnsItsDriftAndSetsItsClock) {
    Options options;
    options.clockPpm = 100000;
    options.clockWander = 0.1;
    options.faults = {"jump:DAQ:9:1:-5", "jump:DAQ:11:1:0", "jump:DAQ:12:1:7"};
    SimBench bench(options);
    bench.drive(measuring(bench, kEvent10ms, "gear"));
    EXPECT_EQ(bench.pass(90).size(), 18U);
    EXPECT_EQ(bench.ecu.nextDueNs(), 90'909'091);
    EXPECT_EQ(bench.pass(1), (Packets{"00 00 18 73 01 00 0A 00 00 00", "01 00 00"}));  // 95 ms instead of 100
    EXPECT_EQ(bench.pass(9).size(), 2U);
    EXPECT_EQ(bench.ecu.nextDueNs(), 101'111'112);  // 100 ms of the host were 110 ms, one more takes longer
    EXPECT_EQ(bench.pass(12), (Packets{"00 00 10 27 00 00 0C 00 00 00", "01 00 00"}));
    EXPECT_EQ(bench.pass(100).size(), 18U);
    EXPECT_EQ(bench.ecu.nextDueNs(), 212'727'273);  // quick again
}

struct FaultRow {
    const char* rule;
    Packets now;    ///< what the second GET_STATUS brings at once
    Packets later;  ///< what follows within 400 ms
    Packets after;  ///< what the third GET_STATUS brings
};

TEST(Ecu, MisbehavesOnOrder) {
    const std::string good = "FF 00 00 00 00 00";
    const std::string pending = "FD 05";
    const std::vector<FaultRow> rows{
        {"ignore:GET_STATUS:2", {}, {}, {good}},
        {"lose:GET_STATUS:2", {}, {}, {good}},
        {"lose:*:3:0", {}, {}, {}},  // CONNECT is the first command
        {"late:GET_STATUS:2:1:200", {}, {good}, {good}},
        {"double:GET_STATUS:2", {good, good}, {}, {good}},
        {"short:GET_STATUS:2:1:3", {"FF 00 00"}, {}, {good}},
        {"wrong:GET_STATUS:2", {"FF FF FF FF FF FF"}, {}, {good}},
        {"stray:GET_STATUS:2", {"FF", good}, {}, {good}},
        {"busy:GET_STATUS:2:2", {"FE 10"}, {}, {"FE 10"}},
        {"error:GET_STATUS:2:1:0x33", {"FE 33"}, {}, {good}},
        {"pending:GET_STATUS:2", {pending}, {pending, pending, pending, good}, {good}},
        {"terminate:GET_STATUS:2", {"FD 07"}, {}, {}},
        {"restart:GET_STATUS:2", {}, {}, {}},
        {"silence:GET_STATUS:2", {}, {}, {}},
        {"silence:GET_STATUS:2:1:300", {}, {}, {good}},
    };
    for (const FaultRow& row : rows) {
        Options options;
        options.faults = {row.rule};
        SimBench bench(options);
        bench.drive({"FF 00", "FD"});
        EXPECT_EQ(bench.send("FD"), row.now) << row.rule;
        EXPECT_EQ(bench.pass(400), row.later) << row.rule;
        EXPECT_EQ(bench.send("FD"), row.after) << row.rule;
    }
}

struct StreamRow {
    const char* rule;
    OverloadIndication overload;
    Packets packets;  ///< of 4 ms; every sample has two DTOs
    std::uint64_t samplesLost;
    std::uint64_t dtosLost;
};

TEST(Ecu, DisturbsTheStreamOnOrder) {
    const auto first = [](int n, const char* pid = "00") {
        return fmt::format("{} 00 {:02X} {:02X} 00 00 {:02X} 00 00 00", pid, (n * 1000) % 256, n * 1000 / 256,
                           n);
    };
    const auto second = [](int n) { return fmt::format("01 00 {:02X}", n); };
    const std::vector<StreamRow> rows{
        {"lose-odt:3",
         OverloadIndication::event,
         {first(1), second(1), second(2), first(3), first(4), second(4)},
         0,
         2},
        {"overload:3",
         OverloadIndication::event,
         {first(1), second(1), first(2), second(2), "FD 06", first(4), second(4)},
         1,
         2},
        {"overload:3",
         OverloadIndication::topBit,
         {first(1), second(1), first(2), second(2), first(4, "80"), second(4)},
         1,
         2},
        {"terminate:DAQ:2",
         OverloadIndication::event,
         {first(1), second(1), first(2), second(2), "FD 07"},
         0,
         0},
        {"silence:DAQ:1", OverloadIndication::event, {first(1), second(1)}, 0, 0},
        {"restart:DAQ:1", OverloadIndication::event, {first(1), second(1)}, 0, 0},
    };
    for (const StreamRow& row : rows) {
        Options options;
        options.faults = {row.rule};
        options.overload = row.overload;
        SimBench bench(options);
        bench.drive(measuring(bench, kEvent1ms, "sig_ubyte_lsb"));
        EXPECT_EQ(bench.pass(4), row.packets) << row.rule;
        EXPECT_EQ(bench.ecu.slave().daqCounters().samplesLost, row.samplesLost) << row.rule;
        EXPECT_EQ(bench.ecu.slave().daqCounters().dtosLost, row.dtosLost) << row.rule;
    }
}

TEST(Ecu, StallsThenCatchesUpAndRestartsFromZero) {
    Options options;
    options.faults = {"stall:DAQ:1:1:50"};
    SimBench bench(options);
    bench.drive(measuring(bench, kEvent1ms, "sig_ubyte_lsb"));
    EXPECT_EQ(bench.pass(1).size(), 2U);
    EXPECT_EQ(bench.pass(49).size(), 0U);
    EXPECT_EQ(bench.pass(1).size(), 100U);
    bench.drive({"F6 00 00 00 02 00 01 00", "F0 02 00 00"});
    bench.ecu.restart(51'000'000);
    EXPECT_EQ(bench.ecu.world().counter(kEvent1ms), 0U);
    EXPECT_EQ(bench.send("FD"), Packets{});
    bench.drive({"FF 00"});
    EXPECT_EQ(bench.send("F4 02 00 00 02 00 01 00"), Packets{"FF 80 0C"});
}

TEST(FaultPlan, RefusesWhatItDoesNotKnow) {
    const std::vector<std::pair<std::string, std::string>> rows{
        {"break", "unknown kind"},
        {"", "unknown kind"},
        {"lose:NOTHING", "unknown command"},
        {"lose:DAQ", "this kind needs a command"},
        {"lose:UPLOAD:0", "number expected"},
        {"lose:UPLOAD:x", "number expected"},
        {"lose:UPLOAD:1:-1", "number expected"},
        {"late:UPLOAD:1:1:1:1", "too many parts"},
        {"lose-odt", "EVERY expected, 1 or more"},
        {"overload:0", "EVERY expected, 1 or more"},
        {"ctr-gap:2:3", "EVERY expected, 1 or more"},
    };
    for (const auto& [text, reason] : rows) {
        const Result<FaultPlan> plan = FaultPlan::parse({"lose:UPLOAD", text});
        ASSERT_FALSE(plan.ok()) << text;
        EXPECT_EQ(plan.error().message, "fault '" + text + "': " + reason);
    }
}

}  // namespace
}  // namespace lm::sim
