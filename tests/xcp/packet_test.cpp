#include "xcp/packet.h"

#include <gtest/gtest.h>

#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bytes;
using test::hex;

TEST(Packet, ParsesFixedResponsesCutAtEveryLength) {
    const Bytes bytes = hex("FF 05 01 08 01 02 03 04");
    const auto connect = parseConnect(bytes).value();
    EXPECT_EQ(connect.resource, 5);
    EXPECT_EQ(connect.maxCto, 8);
    EXPECT_EQ(connect.maxDto, 0x102);
    EXPECT_EQ(connect.protocolLayerVersion, 3);
    EXPECT_EQ(connect.transportLayerVersion, 4);
    EXPECT_EQ(parseCommModeInfo(bytes).value().driverVersion, 4);
    for (std::size_t length = 0; length < 8; ++length) {
        const std::span cut(bytes.data(), length);
        EXPECT_EQ(parseConnect(cut).error().message, "XCP response to CONNECT too short");
        EXPECT_EQ(parseCommModeInfo(cut).error().message, "XCP response to GET_COMM_MODE_INFO too short");
        const auto status = parseStatus(cut, ByteOrder::bigEndian);
        EXPECT_EQ(status ? std::to_string(status.value().sessionConfigurationId) : status.error().message,
                  length < 6 ? "XCP response to GET_STATUS too short" : "258");
    }
    const char* const invalid = "CONNECT: invalid MAX_CTO/MAX_DTO";
    const std::pair<const char*, const char*> refused[] = {
        {"FF 00 06 08 08 00 01 01", "CONNECT: reserved address granularity"},
        {"FF 00 00 07 08 00 01 01", invalid},
        {"FF 00 00 08 07 00 01 01", invalid},
        {"FF 00 04 0A 08 00 01 01", invalid},
        {"FF 00 02 08 09 00 01 01", invalid}};
    for (const auto& row : refused) {
        EXPECT_EQ(parseConnect(hex(row.first)).error().message, row.second) << row.first;
    }
}

}  // namespace
}  // namespace lm::xcp
