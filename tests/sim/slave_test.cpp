#include "sim/slave.h"

#include <gtest/gtest.h>

#include "sim/sim_bench.h"

namespace lm::sim {
namespace {

struct Exchange {
    const char* command;
    const char* answer;  ///< empty: none
};

void play(SimBench& bench, const std::vector<Exchange>& exchanges) {
    for (const Exchange& exchange : exchanges) {
        const Packets answers = bench.send(exchange.command);
        const Packets expected = *exchange.answer == '\0' ? Packets{} : Packets{std::string(exchange.answer)};
        EXPECT_EQ(answers, expected) << exchange.command;
    }
}

TEST(Slave, AnswersInIntelOrder) {
    SimBench bench;
    play(bench, {
                    {"FD", ""},  // nothing before CONNECT
                    {"FF 00", "FF 05 80 F8 78 05 01 01"},
                    {"FD", "FF 00 00 00 00 00"},
                    {"FC", "FE 00"},
                    {"FB", "FF 00 00 00 00 00 00 10"},
                    {"FA 00", "FE 20"},
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
                });
}

TEST(Slave, AnswersInMotorolaOrderWithWiderElements) {
    Options words;
    words.order = ByteOrder::bigEndian;
    words.granularity = 2;
    SimBench two(words);
    play(two, {
                  {"FF 00", "FF 05 83 F8 05 78 01 01"},
                  {"F4 01 00 00 00 01 00 02", "FF 00 0C 80"},
                  {"F4 01 00 00 00 01 00 03", "FE 22"},  // no whole element
                  {"F6 00 00 00 00 01 00 02", "FF"},
                  {"F0 01 12 34", "FF"},
                  {"F4 03 00 00 00 01 00 02", "FF 00 12 34 3F 80 00 00"},
                  {"D9", "FF 02 F8 02 00 34 00 01"},
              });
    Options dwords;
    dwords.granularity = 4;
    dwords.maxCto = 8;
    SimBench four(dwords);
    play(four, {
                   {"FF 00", "FF 05 84 08 78 05 01 01"},
                   {"F4 01 00 00 04 00 01 00", "FF 00 00 00 00 00 80 3F"},
                   {"F4 02 00 00 04 00 01 00", "FE 22"},
                   {"F6 00 00 00 04 00 01 00", "FF"},
                   {"F0 01 00 00 AA BB CC DD", "FF"},
                   {"F4 01 00 00 04 00 01 00", "FF 00 00 00 AA BB CC DD"},
               });
}

TEST(Slave, LeavesOutWhatItIsToldTo) {
    Options options;
    options.without = {kShortUpload, kGetDaqResolutionInfo, kGetCommModeInfo};
    options.staticDaq = true;
    options.timestampSize = 0;
    options.overload = OverloadIndication::topBit;
    SimBench bench(options);
    play(bench, {
                    {"FF 00", "FF 05 00 F8 78 05 01 01"},
                    {"F4 02 00 00 02 00 01 00", "FE 20"},
                    {"FB", "FE 20"},
                    {"D9", "FE 20"},
                    {"D6", "FE 20"},
                    {"DA", "FF 42 00 00 04 00 00 40"},
                });
    Options noDaq;
    noDaq.daq = false;
    SimBench plain(noDaq);
    play(plain, {{"FF 00", "FF 01 80 F8 78 05 01 01"}, {"DA", "FE 20"}, {"DD 00", "FE 20"}});
}

TEST(Slave, RefusesDaqCommandsOutOfOrderOrRange) {
    Options options;
    options.maxDto = 8;
    options.daqEntries = 3;
    SimBench bench(options);
    play(bench, {
                    {"FF 00", "FF 05 80 F8 08 00 01 01"},
                    {"D5 00 01 00", "FE 29"},              // before FREE_DAQ
                    {"E1 FF 04 00 00 20 01 00", "FE 29"},  // before SET_DAQ_PTR
                    {"DD 01", "FE 29"},                    // nothing selected
                    {"D6", "FF"},
                    {"D4 00 00 00 01", "FE 29"},
                    {"D5 00 01 01", "FE 30"},
                    {"D5 00 02 00", "FF"},
                    {"D3 00 00 00 00 01", "FE 29"},
                    {"D4 00 02 00 01", "FE 22"},
                    {"D4 00 00 00 FD", "FE 30"},
                    {"D4 00 00 00 01", "FF"},
                    {"D3 00 00 00 01 01", "FE 22"},
                    {"D3 00 00 00 00 04", "FE 30"},
                    {"D3 00 00 00 00 02", "FF"},
                    {"D4 00 01 00 01", "FE 29"},
                    {"E2 00 00 00 00 02", "FE 22"},
                    {"E2 00 00 00 00 00", "FF"},
                    {"E1 00 04 00 00 20 01 00", "FE 22"},  // single bits
                    {"E1 FF 04 00 00 00 AD DE", "FE 22"},
                    {"E1 FF 07 00 00 20 01 00", "FE 22"},  // larger than an ODT
                    {"E1 FF 04 00 00 20 01 00", "FF"},
                    {"DE 02 00 00", "FE 2A"},              // incomplete
                    {"E1 FF 04 00 00 20 01 00", "FE 2A"},  // 10 bytes in all
                    {"E1 FF 02 00 00 20 01 00", "FF"},
                    {"E1 FF 01 00 00 20 01 00", "FE 22"},  // behind the last entry
                    {"E0 00 00 00 04 00 01 00", "FE 22"},
                    {"E0 00 00 00 00 00 00 00", "FE 22"},
                    {"E0 02 00 00 00 00 01 00", "FE 27"},  // direction STIM
                    {"E0 10 00 00 00 00 01 00", "FF"},
                    {"DE 02 00 00", "FE 2A"},  // no room for the timestamp
                    {"E0 00 00 00 00 00 01 00", "FF"},
                    {"DE 03 00 00", "FE 27"},
                    {"DE 02 00 00", "FF 00"},
                    {"DD 01", "FF"},
                    {"FD", "FF 40 00 00 00 00"},
                    {"E2 00 00 00 00 00", "FE 11"},
                    {"DD 00", "FF"},
                    {"FD", "FF 00 00 00 00 00"},
                });
}

struct DtoRow {
    std::uint8_t identification;
    std::uint8_t timestampSize;
    std::uint8_t minDaq;
    std::uint8_t firstPid;
    ByteOrder order;
    const char* first;   ///< counter_1ms and sig_float32_msb after 1 ms
    const char* second;  ///< counter_1ms again
};

TEST(Slave, SendsDtosInEveryForm) {
    const auto little = ByteOrder::littleEndian;
    const auto big = ByteOrder::bigEndian;
    const std::vector<DtoRow> rows{
        {0, 4, 0, 0, little, "01 E8 03 00 00 01 00 00 00", "02 01 00 00 00"},
        {0, 0, 0, 9, little, "0A 01 00 00 00", "0B 01 00 00 00"},
        {1, 1, 2, 0, little, "00 03 01 01 00 00 00", "01 03 01 00 00 00"},
        {2, 2, 2, 0, big, "00 03 00 0A 00 00 00 00 01", "01 03 00 00 00 00 01"},
        {3, 4, 1, 0, big, "00 00 02 00 E8 03 00 00 00 00 00 01", "01 00 02 00 00 00 00 01"},
    };
    for (const DtoRow& row : rows) {
        Options options;
        options.identification = row.identification;
        options.timestampSize = row.timestampSize;
        options.minDaq = row.minDaq;
        options.firstPid = row.firstPid;
        options.order = row.order;
        SimBench bench(options);
        const auto word = [&](unsigned value) {
            return row.order == big ? fmt::format("00 {:02X}", value) : fmt::format("{:02X} 00", value);
        };
        const std::string counter = row.order == big ? "00 01 20 00" : "00 20 01 00";
        const std::string list0 = word(row.minDaq);
        const std::string list1 = word(row.minDaq + 1U);
        const std::string mode = row.timestampSize == 0 ? "00" : "10";
        // List 0 waits for the event of 10 ms, so that only list 1 is heard.
        Packets commands{"FF 00", "D6", "D5 00 " + word(2), "D4 00 " + list0 + " 01",
                         "D4 00 " + list1 + " 02"};
        for (const std::string& odt : {list0 + " 00", list1 + " 00", list1 + " 01"}) {
            commands.push_back("D3 00 " + odt + " 01");
        }
        for (const std::string& odt : {list0 + " 00", list1 + " 00", list1 + " 01"}) {
            commands.push_back("E2 00 " + odt + " 00");
            commands.push_back("E1 FF 04 00 " + counter);
        }
        commands.push_back("E0 " + mode + " " + list0 + " " + word(1) + " 01 00");
        commands.push_back("E0 " + mode + " " + list1 + " " + word(0) + " 01 00");
        commands.push_back("DE 02 " + list0);
        bench.drive(commands);
        const int firstPid = row.identification == 0 ? row.firstPid + 1 : 0;
        EXPECT_EQ(bench.send("DE 02 " + list1), Packets{fmt::format("FF {:02X}", firstPid)});
        bench.drive({"DD 01"});
        EXPECT_EQ(bench.pass(1), (Packets{row.first, row.second})) << int{row.identification};
    }
}

}  // namespace
}  // namespace lm::sim
