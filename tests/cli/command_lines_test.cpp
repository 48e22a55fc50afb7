#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "cli/command_console.h"
#include "cli/command_info.h"
#include "cli/command_measure.h"

namespace lm::cli {
namespace {

using namespace std::chrono_literals;

TEST(CommandLines, InfoNamesTheTransport) {
    using session::TransportKind;
    EXPECT_EQ(ecuLine("Demo", {TransportKind::udp, "udp:::1:5555"}),
              "ECU            Demo (XCP on UDP/IP, ::1:5555)\n");
    EXPECT_EQ(ecuLine("Demo", {TransportKind::serial, "serial:/dev/x", 9600}),
              "ECU            Demo (XCP on serial, /dev/x, 9600 baud)\n");
    EXPECT_EQ(ecuLine("", {TransportKind::can, "can:can1", 0, 0x7E0, 0x98DAF110}),
              "ECU             (CMD 0x7E0, RES 0x98DAF110 on can1)\n");
}

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

TEST(CommandLines, MeasureTellsStartAndEnd) {
    EXPECT_EQ(startLine({3, 2, 0.0156}, "rec/1"),
              "measuring 3 signal(s) in 2 DAQ list(s), estimated bus load 1.6 %, recording to rec/1 - Ctrl-C "
              "to stop");
    session::MeasurementStats stats;
    stats.records = 18446744073709551615U;
    stats.lostOdts = 1;
    stats.missedCycles = 2;
    stats.overloads = 3;
    stats.reconnects = 4;
    stats.canDropped = 5;
    stats.canErrorFrames = 6;
    stats.recorded = 7;
    stats.recordedDropped = 8;
    const std::string line =
        "2.5 s: 18446744073709551615 records, lost ODTs 1, missed cycles 2, overloads 3, reconnects 4, "
        "CAN dropped 5, error frames 6";
    EXPECT_EQ(statisticsLine(2.46, stats), line);
    EXPECT_EQ(otherLosses(stats), "");
    stats.recording = true;
    EXPECT_EQ(statisticsLine(2.46, stats), line + ", recorded 7 (dropped 8)");
    stats.records = 9;
    EXPECT_EQ(countsWithoutStop(stats),
              "9 records, lost ODTs 1, missed cycles 2, overloads 3, reconnects 4, CAN "
              "dropped 5, error frames 6, recorded 7 (dropped 8)");
    stats.incompleteRecords = 1;
    stats.unknownDtos = 2;
    stats.malformedDtos = 3;
    stats.counterGaps = 4;
    stats.missingPackets = 5;
    stats.malformedDatagrams = 6;
    stats.kernelDrops = 7;
    stats.invalidFrames = 8;
    stats.withoutSamples = 9100ms;
    EXPECT_EQ(
        otherLosses(stats),
        "incomplete records 1, unknown DTOs 2, malformed DTOs 3, UDP counter gaps 4, UDP packets missing "
        "5, malformed UDP datagrams 6, UDP datagrams dropped by the kernel 7, serial invalid frames 8, 9.1 s "
        "without samples before 4 reconnection(s)");
}

TEST(CommandLines, ConsoleShowsTimeOfDayKindAndText) {
    using session::ConsoleLineKind;
    ASSERT_EQ(::setenv("TZ", "XYZ-1", 1), 0);
    ::tzset();
    const auto at = [](std::int64_t ms) {
        return std::chrono::system_clock::time_point(std::chrono::milliseconds(ms));
    };
    EXPECT_EQ(consoleLine({at(7), ConsoleLineKind::received, "a\tb"}), "01:00:00.007  a\tb\n");
    EXPECT_EQ(consoleLine({at(86'399'999), ConsoleLineKind::sent, ""}), "00:59:59.999  > \n");
    EXPECT_EQ(consoleLine({at(45'296'780), ConsoleLineKind::notice, "gone"}), "13:34:56.780  -- gone\n");
}

}  // namespace
}  // namespace lm::cli
