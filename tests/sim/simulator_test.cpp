// The simulated ECU: what it answers and sends, what it does on order, what it writes of itself.
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "sim/a2l_writer.h"
#include "sim/can_medium.h"
#include "sim/catalog.h"
#include "sim/ecu.h"
#include "sim/security.h"
#include "sim/static_lists.h"
#include "support/hex.h"

namespace lm::sim {
namespace {

std::string fileText(const std::string& name) {
    std::ifstream file(std::string(XCPLUMO_SOURCE_DIR) + "/" + name, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(Catalog, ShippedFilesAreWhatItWrites) {
    const Options options;
    const Catalog catalog(options);
    EXPECT_EQ(fileText("examples/demo.a2l"), a2lText(options, catalog))
        << "write it anew: xcplumo-sim --write-a2l examples/demo.a2l";
    EXPECT_NE(fileText("docs/simulator.md").find(modelTable(catalog)), std::string::npos)
        << "put the table of xcplumo-sim --write-model into docs/simulator.md";
}

TEST(Catalog, WholeObjectsServeEveryGranularity) {
    const Catalog catalog(Options{});
    std::size_t leaves = 0;
    for (const Row& row : catalog.rows()) {
        if (row.kind == Kind::hidden && !row.sharesWith.empty()) {
            const Row* instance = catalog.find(row.sharesWith);
            EXPECT_EQ(row.address % typeInfo(row.type).size, 0U) << row.name;
            EXPECT_LE(row.address + row.size(), instance->address + instance->size()) << row.name;
            ++leaves;
        } else if (row.border != 0) {
            EXPECT_EQ(row.address % 8, 0U) << row.name;
            EXPECT_EQ(row.size() % 4, 0U) << row.name;
        }
    }
    EXPECT_EQ(leaves, 4U * 4 + 2 + 4 * 4 + 4);
}

TEST(World, TakesAnyNumberOfPoints) {
    const Catalog catalog(Options{});
    const Row* torque = catalog.find("cal_torque_curve");
    const Row* request = catalog.find("torque_request");
    for (const auto& [points, expected] : std::vector<std::pair<std::uint8_t, double>>{
             {0, 0}, {1, 7}, {8, -20 + 35.0 / 26}, {9, 0}, {255, 0}}) {  // throttle is 1 by then
        World world(catalog);
        world.write(0, torque->address, std::array<std::uint8_t, 1>{points});
        if (points == 1) world.write(0, torque->address + 4, test::hex("00 00 E0 40"));
        world.step(kEvent10ms);
        const std::uint8_t* value = world.read(0, request->address, 4);
        EXPECT_NEAR(loadRaw(value, request->type, ByteOrder::littleEndian, 0).real, expected, 1e-5)
            << +points;
    }
}

TEST(CanMedium, FramesHaveLengthsThatTheBusKnows) {
    using Row = std::tuple<std::size_t, bool, bool, std::size_t>;
    for (const auto& [packet, fd, full, frame] : {Row{1, false, false, 1},
                                                  {8, false, false, 8},
                                                  {2, false, true, 8},
                                                  {8, true, false, 8},
                                                  {9, true, false, 12},
                                                  {33, true, false, 48},
                                                  {64, true, false, 64},
                                                  {3, true, true, 64}}) {
        Options options;
        options.canFd = fd;
        options.maxDlcRequired = full;
        options.fillByte = 0xAA;
        std::vector<std::uint8_t> expected(packet, 1);
        expected.resize(frame, 0xAA);
        EXPECT_EQ(canPayload(std::vector<std::uint8_t>(packet, 1), options), expected) << packet;
    }
}

std::string hexOf(std::span<const std::uint8_t> bytes) {
    return fmt::format("{:02X}", fmt::join(bytes, " "));
}

using Packets = std::vector<std::string>;

class SimBench {
  public:
    explicit SimBench(const Options& options = {})
        : options_(options), ecu(options_, FaultPlan::parse(options.faults).value(), 0) {}

    Packets send(const std::string& text) {
        Outbox out;
        ecu.receive(test::hex(text), nowNs_, out);
        return take(out);
    }
    /// Sends commands that are all expected to succeed.
    void drive(const Packets& commands) {
        for (const std::string& command : commands) {
            const Packets answers = send(command);
            ASSERT_EQ(answers.size(), 1U) << command;
            ASSERT_EQ(answers[0].substr(0, 2), "FF") << command << " gives " << answers[0];
        }
    }
    /// Lets time pass in one step, as if the program had been asleep.
    Packets pass(std::int64_t ms) {
        nowNs_ += ms * 1'000'000;
        Packets all;
        for (bool done = false; !done;) {
            Outbox out;
            done = ecu.advance(nowNs_, out);
            const Packets more = take(out);
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }

  private:
    static Packets take(const Outbox& out) {
        Packets packets;
        for (const Outbox::Packet& packet : out.packets())
            packets.push_back(hexOf(out.bytes(packet)));
        return packets;
    }

    Options options_;
    std::int64_t nowNs_ = 0;

  public:
    Ecu ecu;
};

TEST(Slave, AnswersInIntelOrder) {
    SimBench bench;
    const std::pair<const char*, const char*> exchanges[] = {
        {"FD", ""},  // nothing before CONNECT
        {"FF 00", "FF 05 80 F8 78 05 01 01"},
        {"FD", "FF 00 00 00 00 00"},
        {"FC", "FE 00"},
        {"FB", "FF 00 00 00 00 00 00 10"},
        {"FA 00", "FE 20"},
        {"EC 00 FF FF 00 00", "FE 20"},
        {"C7 00", "FE 20"},
        {"F6 00 00 00 02 00 01", "FE 21"},
        {"F4 02 00 00 02 00 01 00", "FF 80 0C"},
        {"F5 04", "FF 00 00 80 3F"},  // goes on behind: cal_gain
        {"F6 00 00 00 02 00 01 00", "FF"},
        {"F0 02 34", "FE 21"},
        {"F0 00 34", "FE 22"},
        {"F0 02 34 12", "FF"},
        {"F4 02 00 00 02 00 01 00", "FF 34 12"},
        {"F4 00 00 00 02 00 01 00", "FE 22"},
        {"F4 F8 00 00 02 00 01 00", "FE 22"},  // 248 bytes and a header do not fit
        {"F4 04 00 00 00 00 AD DE", "FE 22"},
        {"F6 00 00 01 00 00 08 00", "FF"},
        {"F0 01 00", "FE 23"},
        {"F5 04", "FF 01 12 46 20"},
        {"DA", "FF 93 00 00 04 00 00 40"},
        {"D9", "FF 01 F8 01 00 34 01 00"},
        {"D7 00 01 00", "FF 04 FF 0B 0A 06 00"},
        {"F5 0B", "FF 63 79 63 6C 69 63 5F 31 30 6D 73"},
        {"D7 00 03 00", "FF 04 FF 0B 00 00 00"},
        {"D7 00 04 00", "FE 22"},
        {"DC", "FF 00 00 00 00 00 00 00"},
        {"FE", "FF"},
        {"FD", ""},
    };
    for (const auto& [command, answer] : exchanges)
        EXPECT_EQ(bench.send(command), *answer == '\0' ? Packets{} : Packets{answer}) << command;
}

/// Starts a list on an event: its counter, and one more signal in a second ODT.
void measure(SimBench& bench, unsigned event, const char* counter, const char* signal) {
    const auto entry = [&](const char* name) {
        const Row* row = bench.ecu.catalog().find(name);
        std::array<std::uint8_t, 4> address{};
        writeLittle(address.data(), row->address);
        return fmt::format("E1 FF {:02X} {:02X} {}", row->size(), row->extension, hexOf(address));
    };
    bench.drive({"FF 00", "D6", "D5 00 01 00", "D4 00 00 00 02", "D3 00 00 00 00 01", "D3 00 00 00 01 01"});
    bench.drive({"E2 00 00 00 00 00", entry(counter), "E2 00 00 00 01 00", entry(signal)});
    bench.drive({fmt::format("E0 10 00 00 {:02X} 00 01 00", event), "DE 02 00 00", "DD 01"});
}

TEST(Ecu, RunsItsOwnClock) {
    Options options;
    options.clockPpm = 100000;
    options.clockStart = 0xFFFFFFFF;
    SimBench bench(options);
    measure(bench, kEvent10ms, "counter_10ms", "gear");
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
    measure(bench, kEvent10ms, "counter_10ms", "gear");
    EXPECT_EQ(bench.pass(90).size(), 18U);
    EXPECT_EQ(bench.ecu.nextDueNs(), 90'909'091);
    EXPECT_EQ(bench.pass(1), (Packets{"00 00 18 73 01 00 0A 00 00 00", "01 00 00"}));  // 95 ms instead of 100
    EXPECT_EQ(bench.pass(9).size(), 2U);
    EXPECT_EQ(bench.ecu.nextDueNs(), 101'111'112);  // 100 ms of the host were 110 ms, one more takes longer
    EXPECT_EQ(bench.pass(12), (Packets{"00 00 10 27 00 00 0C 00 00 00", "01 00 00"}));
    EXPECT_EQ(bench.pass(100).size(), 18U);
    EXPECT_EQ(bench.ecu.nextDueNs(), 212'727'273);  // quick again
}

TEST(Ecu, MisbehavesOnOrder) {
    const std::string good = "FF 00 00 00 00 00";
    const std::string pending = "FD 05";
    const struct {
        const char* rule;
        Packets now;    ///< what the second GET_STATUS brings at once
        Packets later;  ///< what follows within 400 ms
        Packets after;  ///< what the third GET_STATUS brings
    } rows[] = {
        {"ignore:GET_STATUS:2", {}, {}, {good}},
        {"lose:GET_STATUS:2", {}, {}, {good}},
        {"lose:*:3:0", {}, {}, {}},  // CONNECT is the first command
        {"late:GET_STATUS:2:1:200", {}, {good}, {good}},
        {"double:GET_STATUS:2", {good, good}, {}, {good}},
        {"double:GET_STATUS:2:1:9", {good}, {good}, {good}},
        {"overtaken:GET_STATUS:2", {}, {}, {good, good}},
        {"positive:GET_STATUS:2", {"FF"}, {}, {good}},
        {"endless:GET_STATUS:2:1:150", {}, {pending, pending, pending}, {good}},
        {"halt:GET_STATUS:2:1:300", {}, {good}, {good}},
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
    for (const auto& row : rows) {
        Options options;
        options.faults = {row.rule};
        SimBench bench(options);
        bench.drive({"FF 00", "FD"});
        EXPECT_EQ(bench.send("FD"), row.now) << row.rule;
        EXPECT_EQ(bench.pass(400), row.later) << row.rule;
        EXPECT_EQ(bench.send("FD"), row.after) << row.rule;
    }
}

TEST(Ecu, WorksOffInOrderWhatCameDuringAHalt) {
    const std::string status = "FF 00 00 00 00 00";
    const std::string word = "FF 80 0C";
    const struct {
        Packets rules;
        Packets at100;  ///< what comes at the end of the halt
        Packets at110;
    } rows[] = {
        {{"halt:GET_STATUS:1:1:100"}, {status, "FE 00", word}, {}},
        {{"halt:GET_STATUS:1:1:100:10"}, {status}, {"FE 00"}},
        {{"double:GET_STATUS", "halt:*:2:1:100"}, {status, status, "FE 00", word}, {}},
        {{"halt:*:2:1:100", "late:SYNCH:1:1:10"}, {status}, {"FE 00", word}},
        {{"halt:*:2:1:100", "overtaken:SYNCH:1:1:10"}, {status, word}, {"FE 00"}},
        {{"halt:*:2:1:100", "overtaken:SYNCH"}, {status, word, "FE 00"}, {}},
    };
    for (const auto& row : rows) {
        Options options;
        options.faults = row.rules;
        SimBench bench(options);
        bench.drive({"FF 00"});
        for (const char* command : {"FD", "FC", "F4 02 00 00 02 00 01 00"})
            EXPECT_EQ(bench.send(command), Packets{}) << row.rules[0];
        EXPECT_EQ(bench.pass(99), Packets{}) << row.rules[0];
        EXPECT_EQ(bench.pass(1), row.at100) << row.rules[0];
        EXPECT_EQ(bench.pass(10), row.at110) << row.rules[0];
    }
}

/// The answers to GET_SEED and UNLOCK in parts, the key spoilt by `error`; the last answer.
std::string unlock(SimBench& bench, std::uint8_t resource, std::size_t keyBytes, std::size_t room,
                   int error) {
    std::vector<std::uint8_t> seed;
    for (std::size_t left = 1; left > 0;) {
        const std::string part = bench.send(fmt::format("F8 0{} {:02X}", seed.empty() ? 0 : 1, resource))[0];
        const std::vector<std::uint8_t> bytes = test::hex(part);
        seed.insert(seed.end(), bytes.begin() + 2, bytes.end());
        left = bytes[1] + 2U - bytes.size();
    }
    std::vector<std::uint8_t> key = keyOf(seed, resource, keyBytes);
    key.back() = static_cast<std::uint8_t>(key.back() + error);
    std::string answer;
    for (std::size_t at = 0; at < key.size(); at += room) {
        const auto part = std::span(key).subspan(at, std::min(room, key.size() - at));
        answer = bench.send(fmt::format("F7 {:02X} {}", key.size() - at, hexOf(part)))[0];
    }
    return answer;
}

TEST(Slave, UnlocksByKeyAlone) {
    Options options;
    options.maxCto = 8;
    options.lock.resources = kCalibration | kDaq;
    options.lock.seedBytes = 20;
    options.lock.keyBytes = 13;
    SimBench bench(options);
    bench.drive({"FF 00"});
    const std::pair<const char*, const char*> refusals[] = {
        {"FD", "FF 00 05 00 00 00"},    {"F8 02 01", "FE 22"}, {"F8 00 03", "FE 22"},
        {"F8 00 08", "FF 00"},          {"F8 01 01", "FE 29"}, {"F7 00", "FE 21"},
        {"F7 01 00", "FE 29"},          {"F0 01 00", "FE 25"}, {"D6", "FE 25"},
        {"E2 00 00 00 00 00", "FE 25"}, {"DD 00", "FE 25"},    {"F6 00 00 00 02 00 01 00", "FF"},
        {"F5 02", "FF 80 0C"},
    };
    for (const auto& [command, answer] : refusals)
        EXPECT_EQ(bench.send(command), Packets{answer}) << command;
    EXPECT_EQ(unlock(bench, kCalibration, 13, 6, 0), "FF 04");
    bench.drive({"F6 00 00 00 02 00 01 00", "F0 02 80 0C"});
    EXPECT_EQ(bench.send("F7 01 00"), Packets{"FE 29"});  // a seed serves one key
    EXPECT_EQ(bench.send("F8 00 01"), Packets{"FF 00"});
    EXPECT_EQ(unlock(bench, kDaq, 13, 5, 1), "FE 25");
    EXPECT_EQ(bench.send("FD"), Packets{});  // disconnected
    bench.drive({"FF 00"});
    EXPECT_EQ(bench.send("F0 02 80 0C"), Packets{"FE 25"});
    EXPECT_EQ(unlock(bench, kDaq, 12, 6, 0), "FE 25");  // too short
    bench.drive({"FF 00"});
    EXPECT_EQ(unlock(bench, kDaq, 13, 6, 0), "FF 01");
    bench.drive({"D6", "FF 00"});
    EXPECT_EQ(bench.send("D6"), Packets{"FE 25"});
}

TEST(Slave, HasStaticLists) {
    Options options;
    options.identification = 0;
    options.firstPid = 2;
    options.maxDto = 9;
    options.timestampSize = 2;
    const StaticListTexts texts{{"2x2", "3x1@2"}, {"counter_1ms,gear,counter_10ms@0"}};
    options.staticLists = makeStaticLists(texts, options, Catalog(options)).value();
    SimBench bench(options);
    const std::string gear = "E1 FF 01 00 90 20 01 00";
    const std::pair<std::string, const char*> exchanges[] = {
        {"FF 00", "FF 05 80 F8 09 00 01 01"},
        {"DA", "FF 92 03 00 04 00 01 00"},
        {"D8 00 00 00", "FF 07 02 02 00 00"},
        {"D8 00 01 00", "FF 04 02 02 00 00"},
        {"D8 00 02 00", "FF 06 03 01 02 00"},
        {"D8 00 03 00", "FE 22"},
        {"D6", "FE 20"},
        {"D5 00 01 00", "FE 20"},
        {"E1 FF 01 00 00 20 01 00", "FE 29"},
        {"DB", "FE 29"},
        {"E2 00 00 00 00 00", "FF"},
        {"DB", "FF FF 04 00 00 20 01 00"},
        {"E1 FF 01 00 00 20 01 00", "FE 23"},
        {"DB", "FF FF 01 00 90 20 01 00"},
        {"DB", "FE 22"},
        {"DE 02 00 00", "FE 2A"},  // no mode yet
        {"E0 10 00 00 01 00 01 00", "FE 22"},
        {"E0 10 00 00 00 00 01 01", "FE 22"},
        {"E0 12 00 00 00 00 01 00", "FE 27"},
        {"E0 10 00 00 00 00 02 00", "FF"},
        {"E2 00 01 00 02 00", "FE 22"},
        {"E2 00 01 00 00 02", "FE 22"},
        {"E0 00 01 00 00 00 01 00", "FF"},
        {"DE 02 01 00", "FE 2A"},  // no entry
        {"E2 00 01 00 01 00", "FF"},
        {gear, "FF"},
        {"DE 01 01 00", "FE 2A"},  // a gap
        {"E2 00 01 00 00 00", "FF"},
        {gear, "FF"},
        {gear, "FF"},
        {gear, "FE 22"},
        {"DF 00 00 00", "FF 10 00 00 00 00 02 00"},
        {"DE 02 00 00", "FF 02"},
        {"DE 02 01 00", "FF 04"},
        {"DD 01", "FF"},
        {"DF 00 01 00", "FF 40 00 00 00 00 01 00"},
        {gear, "FE 11"},
        {"E2 00 01 00 00 00", "FE 11"},
        {"E3 00 01 00", "FF"},
        {"DF 00 01 00", "FF 00 00 00 00 00 01 00"},
        {"E3 00 03 00", "FE 22"},
    };
    for (const auto& [command, answer] : exchanges)
        EXPECT_EQ(bench.send(command), Packets{answer}) << command;
    EXPECT_EQ(bench.pass(2), (Packets{"02 14 00 02 00 00 00 00", "03 00 00 00 00"}));  // every other sample
}

TEST(Slave, ChangesBitsAndWritesEntriesInOneGo) {
    Options options;
    options.maxCto = 26;
    options.offer = {kModifyBits, kWriteDaqMultiple};
    SimBench bench(options);
    const std::string read = "F4 04 00 00 10 04 01 00";  // cal_control_word
    bench.drive({"FF 00", "F6 00 00 00 10 04 01 00"});
    bench.pass(1);
    const std::pair<std::string, const char*> exchanges[] = {
        {read, "FF 00 32 00 80"},
        {"F6 00 00 00 10 04 01 00", "FF"},
        {"EC 00 F0 FF 05 00", "FF"},
        {read, "FF 05 32 00 80"},
        {"F6 00 00 00 10 04 01 00", "FF"},
        {"EC 08 FF FF FF 00", "FF"},  // inverts, clears nothing
        {"EC 10 FF FF 00 80", "FF"},  // the pointer stays
        {"EC 20 FF FF 00 00", "FE 22"},
        {"EC 00 FF FF 00", "FE 21"},
        {read, "FF 05 CD 00 00"},
        {"F6 00 00 01 00 00 08 00", "FF"},
        {"EC 00 FF FF 00 00", "FE 23"},
        {"D6", "FF"},
        {"D5 00 01 00", "FF"},
        {"D4 00 00 00 01", "FF"},
        {"D3 00 00 00 00 02", "FF"},
        {"E2 00 00 00 00 00", "FF"},
        {"C7 03 FF 04 00 20 01 00 00 00", "FE 21"},
        {"C7 04 FF 04 00 20 01 00 00 00", "FE 22"},
        {"C7 02 FF 04 00 20 01 00 00 00 FF 01 90 20 01 00 00 00", "FF"},
        {"C7 01 FF 01 90 20 01 00 00 00", "FE 22"},  // the ODT is full
        {"E0 00 00 00 00 00 01 00", "FF"},
        {"DE 01 00 00", "FF 00"},
    };
    for (const auto& [command, answer] : exchanges)
        EXPECT_EQ(bench.send(command), Packets{answer}) << command;
    EXPECT_EQ(bench.pass(1), Packets{"00 00 02 00 00 00 00"});
    EXPECT_EQ(bench.send(read), Packets{"FF 05 CD 00 80"});  // it inverts what it finds
}

TEST(Slave, SendsListsOnIdentifiersOfTheirOwn) {
    Options options;
    options.maxCto = 8;
    options.maxDto = 8;
    options.identification = 0;
    options.timestampSize = 0;
    options.pidOff = true;
    options.canListIds = {0x600, 0x601};
    options.canListIdsVariable = true;
    SimBench bench(options);
    const std::string counter = "E1 FF 04 00 00 20 01 00";
    const std::pair<std::string, const char*> exchanges[] = {
        {"FF 00", "FF 05 80 08 08 00 01 01"},
        {"DA", "FF A3 00 00 04 00 00 00"},
        {"D6", "FF"},
        {"D5 00 03 00", "FF"},
        {"D4 00 00 00 01", "FF"},
        {"D4 00 01 00 02", "FF"},
        {"D4 00 02 00 01", "FF"},
        {"D3 00 00 00 00 02", "FF"},
        {"D3 00 02 00 00 01", "FF"},
        {"E2 00 00 00 00 00", "FF"},
        {counter, "FF"},
        {counter, "FF"},  // eight bytes without a PID
        {"E2 00 02 00 00 00", "FF"},
        {counter, "FF"},
        {"E0 20 01 00 00 00 01 00", "FE 27"},  // two ODTs
        {"E0 20 02 00 00 00 01 00", "FE 27"},  // no identifier of its own
        {"E0 00 02 00 00 00 01 00", "FF"},
        {"E0 00 00 00 00 00 01 00", "FF"},
        {"DE 02 00 00", "FE 2A"},  // too long with a PID
        {"F2 FE 00 00", "FF 00 00 00 00 06 00 00"},
        {"F2 FE 02 00", "FF 00 00 00 E1 07 00 00"},
        {"F2 FE 03 00", "FE 22"},
        {"F2 FD 00 00 00 08 00 00", "FE 22"},
        {"F2 FD 00 00 01 06 00 00", "FF"},
        {"E0 20 00 00 00 00 01 00", "FE 27"},  // that of list 1
        {"F2 FD 00 00 00 08 00 80", "FF"},
        {"E0 20 00 00 00 00 01 00", "FF"},
        {"F2 FF 00 00", "FE 20"},
        {"DE 01 00 00", "FF 00"},
        {"DE 01 02 00", "FF 03"},
        {"F2 FD 00 00 00 06 00 00", "FE 11"},
    };
    for (const auto& [command, answer] : exchanges)
        EXPECT_EQ(bench.send(command), Packets{answer}) << command;
    Outbox out;
    bench.ecu.advance(1'000'000, out);
    ASSERT_EQ(out.packets().size(), 2U);
    EXPECT_EQ(hexOf(out.bytes(out.packets()[0])), "01 00 00 00 01 00 00 00");
    EXPECT_EQ(out.packets()[0].canId, 0x80000800);
    EXPECT_EQ(hexOf(out.bytes(out.packets()[1])), "03 01 00 00 00");
    EXPECT_EQ(out.packets()[1].canId, 0U);
}

TEST(Slave, LosesItsPointersOnSynch) {
    Options options;
    options.synchClears = true;
    SimBench bench(options);
    bench.drive({"FF 00", "F6 00 00 00 02 00 01 00"});
    bench.send("FC");
    bench.drive({"F0 01 07"});
    EXPECT_EQ(bench.send("F4 04 00 00 00 00 01 00"), Packets{"FF 07 00 80 0C"});
    measure(bench, kEvent10ms, "counter_10ms", "gear");
    bench.send("DD 00");
    bench.drive({"E2 00 00 00 01 00"});
    bench.send("FC");
    bench.drive({"E1 FF 01 00 00 00 01 00", "DE 02 00 00", "DD 01"});
    EXPECT_EQ(bench.pass(10)[0].substr(18), "07");  // in the place of the counter
}

TEST(Ecu, StallsThenCatchesUpAndRestartsFromZero) {
    Options options;
    options.faults = {"stall:DAQ:1:1:50"};
    SimBench bench(options);
    measure(bench, kEvent1ms, "counter_1ms", "sig_ubyte_lsb");
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
        {"lose:NOTHING", "unknown command"},
        {"lose:DAQ", "this kind needs a command"},
        {"lose:UPLOAD:0", "number expected"},
        {"lose:UPLOAD:1:-1", "number expected"},
        {"late:UPLOAD:1:1:1:1", "too many parts"},
        {"lose-odt", "EVERY expected, 1 or more"},
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
