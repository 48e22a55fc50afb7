#include "xcp/packet.h"

#include <gtest/gtest.h>

#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bytes;
using test::hex;

TEST(Packet, NamesCommandsAndErrors) {
    const struct {
        std::uint8_t command;
        std::uint8_t code;
        const char* message;
        ErrorCode category;
    } errors[] = {
        {0xFF, 0x00, "CONNECT: ERR_CMD_SYNCH (0x00)", ErrorCode::protocolError},
        {0xF2, 0x11, "TRANSPORT_LAYER_CMD: ERR_DAQ_ACTIVE (0x11)", ErrorCode::wouldBlock},
        {0xE7, 0x20, "GET_PAGE_INFO: ERR_CMD_UNKNOWN (0x20)", ErrorCode::unsupported},
        {0xDD, 0x22, "START_STOP_SYNCH: ERR_OUT_OF_RANGE (0x22)", ErrorCode::invalidArgument},
        {0xD7, 0x25, "GET_DAQ_EVENT_INFO: ERR_ACCESS_LOCKED (0x25)", ErrorCode::permissionDenied},
        {0xC7, 0x33, "WRITE_DAQ_MULTIPLE: ERR_RESOURCE_TEMPORARY_NOT_ACCESSIBLE (0x33)",
         ErrorCode::wouldBlock},
        {0xC6, 0x34, "UNKNOWN_CMD: ERR_UNKNOWN_CODE (0x34)", ErrorCode::protocolError},
    };
    for (const auto& row : errors) {
        const Error error = errorReply(row.command, row.code);
        EXPECT_EQ(error.message, row.message);
        EXPECT_EQ(error.code, row.category) << row.message;
        EXPECT_EQ(error.detail, row.code);
    }
}

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
