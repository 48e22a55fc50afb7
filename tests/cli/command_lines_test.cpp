
#include <gtest/gtest.h>

#include "cli/command_info.h"

namespace lm::cli {
namespace {

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

}  // namespace
}  // namespace lm::cli
