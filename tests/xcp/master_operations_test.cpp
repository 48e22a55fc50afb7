// Memory access and DAQ configuration: the exact packets and what is made of the answers.
#include <gtest/gtest.h>

#include "xcp/master.h"
#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bytes;
using test::hex;
using test::kConnected;
using test::ScriptedSlave;

struct Connection {
    explicit Connection(const std::string& answer, bool useShortUpload = true)
        : master(slave, {.t1 = 20, .t7 = 0, .useShortUpload = useShortUpload}) {
        slave.play("FF 00 > " + answer);
        EXPECT_TRUE(master.connect());
    }
    ~Connection() { slave.expectDone(); }

    ScriptedSlave slave;
    Master master;
};

template <typename T>
std::string failure(const Result<T>& result) {
    return result ? "" : result.error().text();
}

TEST(MasterMemory, UploadsByGranularityAndMaxCto) {
    const struct {
        const char* connect;
        bool shortUpload;
        std::size_t size;
        const char* script;
        const char* result;  ///< bytes or message
    } cases[] = {
        {"FF 05 00 08 08 00 01 01", true, 7, "F4 07 00 01 78 56 34 12 > FF 01 02 03 04 05 06 07",
         "01 02 03 04 05 06 07"},
        {"FF 05 00 08 08 00 01 01", true, 8,
         "F6 00 00 01 78 56 34 12 > FF; F5 07 > FF 01 02 03 04 05 06 07; F5 01 > FF 08 99",
         "01 02 03 04 05 06 07 08"},
        {"FF 05 05 08 00 08 01 01", false, 8,
         "F6 00 00 01 12 34 56 78 > FF; F5 01 > FF 00 00 00 01 02 03 04; "
         "F5 01 > FF 00 00 00 05 06 07 08",
         "01 02 03 04 05 06 07 08"},
        {"FF 05 02 08 08 00 01 01", true, 6, "F4 03 00 01 78 56 34 12 > FF 00 01 02 03 04 05 06",
         "01 02 03 04 05 06"},
        {"FF 05 02 08 08 00 01 01", true, 3, "", "upload size must be a non-zero multiple of AG"},
        {"FF 05 00 08 08 00 01 01", true, 0, "", "upload size must be a non-zero multiple of AG"},
        {"FF 05 00 08 08 00 01 01", true, 5, "F4 05 00 01 78 56 34 12 > FF 01 02 03 04",
         "UPLOAD response shorter than requested"},
        {"FF 05 00 08 08 00 01 01", true, 5, "F4 05 00 01 78 56 34 12 > FE 22",
         "SHORT_UPLOAD: ERR_OUT_OF_RANGE (0x22)"},
    };
    for (const auto& row : cases) {
        Connection connection(row.connect, row.shortUpload);
        connection.slave.play(row.script);
        const auto bytes = connection.master.upload({0x12345678, 1}, row.size);
        EXPECT_EQ(bytes ? test::hexText(bytes.value().data(), bytes.value().size()) : bytes.error().text(),
                  row.result);
    }
}

TEST(MasterMemory, RemembersThatShortUploadIsMissingAndSetsTheMtaBeforeARepeat) {
    Connection connection(kConnected);
    connection.slave.play(
        "F4 01 00 00 10 00 00 00 > FE 20; F6 00 00 00 10 00 00 00 > FF; F5 01 > FF 42; "
        "F6 00 00 00 10 00 00 00 > FF; F5 07 > FF 00 01 02 03 04 05 06; F5 01; FC > FE 00; "
        "F6 00 00 00 17 00 00 00 > FF; F5 01 > FF 07");
    EXPECT_EQ(connection.master.upload({0x10, 0}, 1).value(), Bytes{0x42});
    EXPECT_EQ(connection.master.upload({0x10, 0}, 8).value(), hex("00 01 02 03 04 05 06 07"));
    // A new connection asks anew.
    connection.slave.play("FF 00 > @; FC > FE 00; F4 01 00 00 10 00 00 00 > FF 43");
    ASSERT_TRUE(connection.master.connect());
    EXPECT_EQ(connection.master.upload({0x10, 0}, 1).value(), Bytes{0x43});
}

TEST(MasterMemory, DownloadsInChunks) {
    const struct {
        const char* connect;
        const char* bytes;
        const char* script;
        const char* message;
    } cases[] = {
        {"FF 05 02 08 08 00 01 01", "00 01 02 03 04 05 06 07 08 09",
         "F6 00 00 00 10 00 00 00 > FF; F0 03 00 01 02 03 04 05 > FF; F0 02 06 07 08 09; "
         "FC > FE 00; F6 00 00 00 16 00 00 00 > FF; F0 02 06 07 08 09 > FF",
         ""},
        {"FF 05 04 08 08 00 01 01", "00 01 02 03",
         "F6 00 00 00 10 00 00 00 > FF; F0 01 00 00 00 01 02 03 > FE 23",
         "DOWNLOAD: ERR_WRITE_PROTECTED (0x23)"},
        {"FF 05 04 08 08 00 01 01", "00 01", "", "download size must be a non-zero multiple of AG"},
    };
    for (const auto& row : cases) {
        Connection connection(row.connect);
        connection.slave.play(row.script);
        EXPECT_EQ(failure(connection.master.download({0x10, 0}, hex(row.bytes))), row.message);
    }
}

TEST(MasterDaq, GathersCapabilitiesAndEventNames) {
    Connection connection("FF 05 01 08 00 08 01 01");  // Motorola
    connection.slave.play(
        "DA > FF 53 00 05 00 02 01 60; D9 > FF 00 06 01 02 6A 00 19; "
        "D7 00 00 00 > FF 04 01 09 01 07 02; F5 07 > FF 31 20 6D 73 20 65 76; F5 02; FC > FE 00; "
        "D7 00 00 00 > FF 04 01 09 01 07 02; F5 07 > FF 31 20 6D 73 20 65 76; F5 02 > FF 65 6E; "
        "FC > FE 00; D7 00 00 01 > FF 04 FF 00 00 07 00");
    const auto read = connection.master.daqCapabilities();
    ASSERT_TRUE(read) << read.error().text();
    const DaqCapabilities& daq = read.value();
    EXPECT_TRUE(daq.dynamicConfiguration && daq.prescalerSupported && daq.timestampSupported &&
                daq.overloadInPid);
    EXPECT_FALSE(daq.resumeSupported || daq.pidOffSupported || daq.overloadEvent);
    EXPECT_EQ(daq.maxDaq, 5);
    EXPECT_EQ(daq.minDaq, 1);
    EXPECT_EQ(daq.identification, DaqIdentification::relativeByte);
    EXPECT_EQ(daq.addressExtensionType, 2);
    EXPECT_EQ(daq.entryGranularity, 1);
    EXPECT_EQ(daq.maxEntrySize, 6);
    EXPECT_EQ(daq.timestampSize, 2);
    EXPECT_TRUE(daq.timestampFixed);
    EXPECT_EQ(daq.tickNs, 25'000'000);
    ASSERT_EQ(daq.events.size(), 2U);
    EXPECT_EQ(daq.events[0].name, "1 ms even");
    EXPECT_EQ(daq.events[0].cycleNs, 10'000'000);
    EXPECT_EQ(daq.events[1].cycleNs, 0);
    EXPECT_EQ(daq.events[1].name, "");
}

TEST(MasterDaq, CapabilitiesSurviveMissingAndShortAnswers) {
    const struct {
        const char* script;
        const char* message;
    } cases[] = {
        {"DA > FF 13 00 00 00 00 00", "GET_DAQ_PROCESSOR_INFO response too short"},
        {"DA > FF 13 00 00 01 00 00 00; D9 > FE 22", "GET_DAQ_RESOLUTION_INFO: ERR_OUT_OF_RANGE (0x22)"},
        {"DA > FF 13 00 00 01 00 00 00; D9 > FE 20; D7 00 00 00 > FF 00 00 00 00 00",
         "GET_DAQ_EVENT_INFO response too short"},
        {"DA > FF 13 00 00 01 00 00 00; D9 > FE 20; D7 00 00 00 > FE 20", ""},
        {"DA > FF 13 00 00 01 00 00 00; D9 > FF 02 04 00 00 32 01; D7 00 00 00 > FE 20", ""},
    };
    for (const auto& row : cases) {
        Connection connection(kConnected);
        connection.slave.play(row.script);
        const auto read = connection.master.daqCapabilities();
        EXPECT_EQ(failure(read), row.message);
        if (!read) continue;
        EXPECT_FALSE(read.value().timestampSupported);
        EXPECT_EQ(read.value().maxEntrySize, 7);
        EXPECT_EQ(read.value().entryGranularity, 1);
        EXPECT_TRUE(read.value().events.empty());
    }
    Connection without("FF 01 00 08 08 00 01 01");
    without.slave.play("");
    EXPECT_EQ(failure(without.master.daqCapabilities()), "slave does not offer the DAQ resource");
}

DaqPlan twoLists(DaqIdentification identification) {
    DaqCapabilities capabilities;
    capabilities.dynamicConfiguration = true;
    capabilities.maxEventChannel = 9;
    capabilities.minDaq = 2;
    capabilities.identification = identification;
    capabilities.timestampSize = 2;
    capabilities.timestampFixed = true;
    const DaqSignal signals[] = {
        {{0x10, 1}, 4, 5, 3}, {{0x20, 0}, 4, 5, 3}, {{0x30, 0}, 2, 8, 0}, {{0x32, 0}, 1, 8, 0}};
    return planDaq(signals, capabilities, {.maxDto = 8}).value();
}

TEST(MasterDaq, ConfiguresListByListAndTakesDisjointFirstPids) {
    const struct {
        const char* selection;
        Bytes pids;
    } cases[] = {{"DE 02 02 00 > FF 20; DE 02 03 00 > FF 22", {0x20, 0x22}},  // the slave's own
                 {"DE 02 02 00 > FF 20; DE 02 03 00 > FF 21", {0, 2}},        // overlapping
                 {"DE 02 02 00 > FF 20; DE 02 03 00 > FF", {0, 2}},           // not told
                 {"DE 02 02 00 > FF 20; DE 02 03 00 > FF FC", {0, 2}}};       // no DTO
    for (const auto& row : cases) {
        Connection connection(kConnected);
        connection.slave.play(
            "D6 > FF; D5 00 02 00 > FF; D4 00 02 00 02 > FF; D4 00 03 00 01 > FF; "
            "D3 00 02 00 00 01 > FF; D3 00 02 00 01 01 > FF; D3 00 03 00 00 02 > FF; "
            "E2 00 02 00 00 00 > FF; E1 FF 04 01 10 00 00 00 > FF; E2 00 02 00 01 00 > FF; "
            "E1 FF 04 00 20 00 00 00 > FF; E2 00 03 00 00 00 > FF; E1 FF 02 00 30 00 00 00 > FF; "
            "E1 FF 01 00 32 00 00 00 > FF; E0 10 02 00 05 00 03 00 > FF; "
            "E0 10 03 00 08 00 01 00 > FF; " +
            std::string(row.selection) + "; DD 01 > FF; DD 00 > FF");
        const auto pids = connection.master.configureDaq(twoLists(DaqIdentification::absoluteOdt));
        ASSERT_TRUE(pids) << pids.error().text();
        EXPECT_EQ(pids.value(), row.pids);
        EXPECT_TRUE(connection.master.startDaq());
        EXPECT_TRUE(connection.master.stopDaq());
    }
}

TEST(MasterDaq, SizesCountElementsAndAFailureEndsTheSequence) {
    DaqPlan plan = twoLists(DaqIdentification::relativeByte);
    plan.lists.pop_back();
    Connection connection("FF 05 04 08 08 00 01 01");  // AG 4
    connection.slave.play(
        "D6 > FF; D5 00 01 00 > FF; D4 00 02 00 02 > FF; D3 00 02 00 00 01 > FF; "
        "D3 00 02 00 01 01 > FF; E2 00 02 00 00 00 > FF; E1 FF 01 01 10 00 00 00; FC > FE 00; "
        "E2 00 02 00 00 00 > FF; E1 FF 01 01 10 00 00 00 > FE 2A");
    EXPECT_EQ(failure(connection.master.configureDaq(plan)), "WRITE_DAQ: ERR_DAQ_CONFIG (0x2A)");
}

}  // namespace
}  // namespace lm::xcp
