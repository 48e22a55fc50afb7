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

TEST(Slave, HasSpareMemoryForObjectsOfOthers) {
    Options options;
    options.spareBytes = 16;
    SimBench bench(options);
    play(bench, {{"FF 00", "FF 05 80 F8 78 05 01 01"},
                 {"F4 02 00 00 00 00 20 00", "FF BC 57"},
                 {"F4 01 00 00 10 00 20 00", "FE 22"}});
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

}  // namespace
}  // namespace lm::sim
