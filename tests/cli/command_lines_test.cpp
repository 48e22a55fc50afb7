#include <chrono>

#include <gtest/gtest.h>

#include "cli/command_info.h"
#include "cli/measurement_counts.h"

namespace lm::cli {
namespace {

using namespace std::chrono_literals;

TEST(CommandLines, InfoShowsConnectionAndDaq) {
    xcp::ConnectInfo info;
    info.resource = 0x15;
    info.commModeBasic = 0x03;
    info.maxCto = 8;
    info.maxDto = 65503;
    EXPECT_EQ(connectLines(info),
              "resources      CAL/PAG DAQ PGM\n"
              "communication  Motorola, AG 2, MAX_CTO 8, MAX_DTO 65503\n");
    xcp::DaqCapabilities daq;
    daq.dynamicConfiguration = true;
    daq.timestampSize = 4;
    daq.tickNs = 1000;
    daq.maxEntrySize = 7;
    daq.events = {{0, 0, 0, "10ms", 10'000'000, 0},
                  {1, 0, 0, std::string("s\x1B[2J\0\0", 7), 0, 0},
                  {1234, 0, 0, "a name of more than twenty bytes", 1'999'999, 0}};
    EXPECT_EQ(daqLines(daq),
              "DAQ            dynamic, timestamp 4 byte x 0.001 ms, max ODT entry 7\n"
              "  event 0   10ms                 10 ms\n"
              "  event 1   s\\x1B[2J             not cyclic\n"
              "  event 1234 a name of more than twenty bytes 1 ms\n");
}

TEST(CommandLines, MeasureTellsEveryLoss) {
    session::MeasurementStats stats;
    EXPECT_EQ(otherLosses(stats), "");
    EXPECT_EQ(countsWithoutStop(stats), "0 records");
    stats = {.records = 9,
             .lostOdts = 1,
             .missedCycles = 2,
             .overloads = 3,
             .reconnects = 4,
             .recording = true,
             .recorded = 7,
             .recordedDropped = 8,
             .withoutSamples = 9100ms,
             .failedReconnects = 1,
             .withoutSamplesToEnd = 12340ms,
             .incompleteRecords = 1,
             .unknownDtos = 2,
             .malformedDtos = 3,
             .medium = {{"error frames", 6, false}, {"CAN dropped", 5}, {"packets", 4}, {"frames", 7}}};
    EXPECT_EQ(countsWithoutStop(stats),
              "9 records, lost ODTs 1, missed cycles 2, overloads 3, reconnects 4, CAN "
              "dropped 5, error frames 6, recorded 7 (dropped 8)");
    EXPECT_EQ(otherLosses(stats),
              "incomplete records 1, unknown DTOs 2, malformed DTOs 3, packets 4, frames 7, 9.1 s without "
              "samples before 3 reconnection(s), 1 of 4 reconnects failed, 12.3 s without samples up "
              "to the end");
}

TEST(CommandLines, MeasureTellsSilentListsAndFailsOnRequest) {
    using session::MeasurementStats;
    MeasurementStats silent{.silentLists = {{3, "crank", 0}, {1, "", 1'500'000}}, .silenceHint = "why"};
    const auto lines = silentLists(silent);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0] + "|" + lines[1],
              "no record came of event 3 (crank, not cyclic)|no record came of event 1 (1.5 ms)");
    EXPECT_EQ(lines[2], "why");

    const struct {
        MeasurementStats stats;
        const char* what;  ///< the only condition that holds
    } rows[] = {
        {{}, ""},
        {{.records = 5, .medium = {{"lost", 0}, {"odd", 3, false}}}, ""},
        {{.lostOdts = 1}, "losses"},
        {{.missedCycles = 1}, "losses"},
        {{.overloads = 1}, "losses"},
        {{.recording = true, .recordedDropped = 1}, "losses"},
        {{.medium = {{"odd", 3, false}, {"lost", 1}}}, "losses"},
        {{.reconnects = 1}, "outage"},
        {{.withoutSamplesToEnd = 1ms}, "outage"},
        {silent, "empty"},
    };
    for (const auto& row : rows) {
        for (const std::string what : {"losses", "outage", "empty"})
            EXPECT_EQ(failsOn({what}, row.stats), what == row.what) << what << &row - rows;
        EXPECT_FALSE(failsOn({}, row.stats));
        EXPECT_EQ(failsOn({"losses", "outage", "empty"}, row.stats), *row.what != '\0');
    }
}

}  // namespace
}  // namespace lm::cli
