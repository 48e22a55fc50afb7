// Memory access and DAQ configuration: the exact packets and what is made of the answers.
#include <gtest/gtest.h>

#include "xcp/master.h"
#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bench;

// Behind "FF 00 > ": what the slave answers to CONNECT.
constexpr const char* kIntel2 = "FF 05 02 08 08 00 01 01";
constexpr const char* kIntel4 = "FF 05 04 08 08 00 01 01";
constexpr const char* kMotorola4 = "FF 05 05 08 00 08 01 01";

TEST(MasterMemory, ReadsAndWritesByGranularityAndMaxCto) {
    const struct {
        const char* connect;
        const char* commands;
        const char* script;
        const char* results;
    } rows[] = {
        {"@", "upload 7", "; F4 07 00 01 78 56 34 12 > FF 01 02 03 04 05 06 07", "01 02 03 04 05 06 07"},
        {"@", "upload 8", "; F6 00 00 01 78 56 34 12 > FF; F5 07 > FF 01 02 03 04 05 06 07; F5 01 > FF 08 99",
         "01 02 03 04 05 06 07 08"},
        {kMotorola4, "upload 4; upload 8",
         "; F4 01 00 01 12 34 56 78 > FF 00 00 00 01 02 03 04; F6 00 00 01 12 34 56 78 > FF; "
         "F5 01 > FF 00 00 00 01 02 03 04; F5 01 > FF 00 00 00 05 06 07 08",
         "01 02 03 04; 01 02 03 04 05 06 07 08"},
        {kIntel2, "upload 6", "; F4 03 00 01 78 56 34 12 > FF 00 01 02 03 04 05 06", "01 02 03 04 05 06"},
        {kIntel2, "upload 3", "", "upload size must be a non-zero multiple of AG"},
        {"@", "upload 0", "", "upload size must be a non-zero multiple of AG"},
        {"@", "upload 5", "; F4 05 00 01 78 56 34 12 > FF 01 02 03 04",
         "UPLOAD response shorter than requested"},
        {"@", "upload 5", "; F4 05 00 01 78 56 34 12 > FE 22", "SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)"},
        // A missing SHORT_UPLOAD is remembered until the next connection; a repeat sets the MTA before.
        {"@", "upload 1; upload 8; connect; upload 1",
         "; F4 01 00 01 78 56 34 12 > FE 20; F6 00 00 01 78 56 34 12 > FF; F5 01 > FF 42; "
         "F6 00 00 01 78 56 34 12 > FF; F5 07 > FF 00 01 02 03 04 05 06; F5 01; FC > FE 00; "
         "F6 00 00 01 7F 56 34 12 > FF; F5 01 > FF 07; "
         "FF 00 > @; FC > FE 00; F4 01 00 01 78 56 34 12 > FF 43",
         "42; 00 01 02 03 04 05 06 07; ok; 43"},
        {"@", "download 01 02 03 04 05 06", "; F6 00 00 00 10 00 00 00 > FF; F0 06 01 02 03 04 05 06 > FF",
         "ok"},
        {kIntel2, "download 00 01 02 03 04 05 06 07 08 09",
         "; F6 00 00 00 10 00 00 00 > FF; F0 03 00 01 02 03 04 05 > FF; F0 02 06 07 08 09; "
         "FC > FE 00; F6 00 00 00 16 00 00 00 > FF; F0 02 06 07 08 09 > FF",
         "ok"},
        {kIntel4, "download 00 01 02 03", "; F6 00 00 00 10 00 00 00 > FF; F0 01 00 00 00 01 02 03 > FE 23",
         "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"},
        {kIntel4, "download 00 01", "", "download size must be a non-zero multiple of AG"},
    };
    for (const auto& row : rows) {
        Bench bench(std::string("FF 00 > ") + row.connect + row.script);
        EXPECT_EQ(bench.run(std::string("connect; ") + row.commands), std::string("ok; ") + row.results);
    }
    Bench without("FF 00 > @; F6 00 00 01 78 56 34 12 > FF; F5 01 > FF 42", {.useShortUpload = false});
    EXPECT_EQ(without.run("connect; upload 1"), "ok; 42");
}

std::string text(const DaqCapabilities& daq) {
    std::string result = fmt::format(
        "{:d}{:d}{:d}{:d} {:d}{:d}{:d}{:d} {}-{} id {} {} entry {}/{} stamp {}/{}:", daq.dynamicConfiguration,
        daq.prescalerSupported, daq.timestampSupported, daq.timestampFixed, daq.overloadInPid,
        daq.overloadEvent, daq.resumeSupported, daq.pidOffSupported, daq.minDaq, daq.maxDaq,
        static_cast<int>(daq.identification), daq.addressExtensionType, daq.entryGranularity,
        daq.maxEntrySize, daq.timestampSize, daq.tickNs);
    for (const EventChannel& event : daq.events) {
        result += fmt::format(" {}/{}", event.name, event.cycleNs);
    }
    return result;
}

TEST(MasterDaq, GathersCapabilitiesAndEventNames) {
    const std::pair<const char*, const char*> rows[] = {
        {"FF 05 01 08 00 08 01 01; "  // Motorola
         "DA > FF 53 00 05 00 02 01 60; D9 > FF 00 06 01 02 6A 00 19; "
         "D7 00 00 00 > FF 04 01 09 01 07 02; F5 07 > FF 31 20 6D 73 20 65 76; F5 02; FC > FE 00; "
         "D7 00 00 00 > FF 04 01 09 01 07 02; F5 07 > FF 31 20 6D 73 20 65 76; F5 02 > FF 65 6E; "
         "FC > FE 00; D7 00 00 01 > FF 04 FF 00 00 07 00",
         "1111 1000 1-5 id 1 2 entry 1/6 stamp 2/25000000: 1 ms even/10000000 /0"},
        {"FF 01 00 08 08 00 01 01", "slave does not offer the DAQ resource"},
        {"@; DA > FF 13 00 00 00 00 00", "GET_DAQ_PROCESSOR_INFO response too short"},
        {"@; DA > FF 13 00 00 01 00 00 00; D9 > FE 22", "GET_DAQ_RESOLUTION_INFO: ERR_OUT_OF_RANGE (0x22)"},
        {"@; DA > FF 13 00 00 01 00 00 00; D9 > FE 20; D7 00 00 00 > FF 00 00 00 00 00",
         "GET_DAQ_EVENT_INFO response too short"},
        {"@; DA > FF 13 00 00 01 00 00 00; D9 > FE 20; D7 00 00 00 > FE 20",
         "1100 0000 0-0 id 0 0 entry 1/7 stamp 0/0:"},
        {"@; DA > FF 13 00 00 01 00 00 00; D9 > FF 02 04 00 00 32 01; D7 00 00 00 > FE 20",
         "1100 0000 0-0 id 0 0 entry 1/7 stamp 0/0:"},
    };
    for (const auto& row : rows) {
        Bench bench(std::string("FF 00 > ") + row.first);
        bench.run("connect");
        const auto read = bench.master.daqCapabilities();
        EXPECT_EQ(read ? text(read.value()) : read.error().text(), row.second);
    }
}

TEST(MasterDaq, ConfiguresListByListAndTakesDisjointFirstPids) {
    const DaqSignal signals[] = {
        {{0x10, 1}, 4, 5, 3}, {{0x20, 0}, 4, 5, 3}, {{0x30, 0}, 2, 8, 0}, {{0x32, 0}, 1, 8, 0}};
    const std::string two =
        "@; D6 > FF; D5 00 02 00 > FF; D4 00 02 00 02 > FF; D4 00 03 00 01 > FF; "
        "D3 00 02 00 00 01 > FF; D3 00 02 00 01 01 > FF; D3 00 03 00 00 02 > FF; "
        "E2 00 02 00 00 00 > FF; E1 FF 04 01 10 00 00 00 > FF; "
        "E2 00 02 00 01 00 > FF; E1 FF 04 00 20 00 00 00 > FF; "
        "E2 00 03 00 00 00 > FF; E1 FF 02 00 30 00 00 00 > FF; "
        "E1 FF 01 00 32 00 00 00 > FF; E0 10 02 00 05 00 03 00 > FF; "
        "E0 10 03 00 08 00 01 00 > FF; DE 02 02 00 > FF 20; DE 02 03 00 > ";
    const std::string one =
        std::string(kMotorola4) +
        "; D6 > FF; D5 00 00 01 > FF; D4 00 00 02 02 > FF; D3 00 00 02 00 01 > FF; "
        "D3 00 00 02 01 01 > FF; E2 00 00 02 00 00 > FF; E1 FF 01 01 00 00 00 10; FC > FE 00; "
        "E2 00 00 02 00 00 > FF; E1 FF 01 01 00 00 00 10 > ";
    const std::string startAndStop = "; DD 01 > FF; DD 00 > FF";
    const struct {
        std::size_t signals;
        DaqIdentification identification;
        std::string script;
        const char* result;
    } rows[] = {
        {4, DaqIdentification::absoluteOdt, two + "FF 22" + startAndStop, "20 22"},  // the slave's own
        {4, DaqIdentification::absoluteOdt, two + "FF 21" + startAndStop, "00 02"},  // overlapping
        {4, DaqIdentification::absoluteOdt, two + "FF" + startAndStop, "00 02"},     // not told
        {4, DaqIdentification::absoluteOdt, two + "FF FC" + startAndStop, "00 02"},  // no DTO
        {2, DaqIdentification::relativeByte, one + "FE 2A", "WRITE_DAQ: ERR_DAQ_CONFIG (0x2A)"},
        {2, DaqIdentification::relativeByte,
         one + "FF; FC > FE 00; E2 00 00 02 01 00 > FF; E1 FF 01 00 00 00 00 20 > FF; "
               "E0 10 00 02 00 05 03 00 > FF; DE 02 00 02 > FE 31",
         "START_STOP_DAQ_LIST: ERR_GENERIC (0x31)"}};
    for (const auto& row : rows) {
        DaqCapabilities capabilities;
        capabilities.dynamicConfiguration = true;
        capabilities.maxEventChannel = 9;
        capabilities.minDaq = 2;
        capabilities.identification = row.identification;
        capabilities.timestampSize = 2;
        capabilities.timestampFixed = true;
        const auto plan = planDaq({signals, row.signals}, capabilities, {.maxDto = 8});
        Bench bench("FF 00 > " + row.script);
        bench.run("connect");
        const auto pids = bench.master.configureDaq(plan.value());
        EXPECT_EQ(pids ? test::hexText(pids.value().data(), pids.value().size()) : pids.error().text(),
                  row.result);
        if (!pids) continue;
        EXPECT_TRUE(bench.master.startDaq());
        EXPECT_TRUE(bench.master.stopDaq());
    }
}

}  // namespace
}  // namespace lm::xcp
