#include "xcp/packet.h"

#include <gtest/gtest.h>

#include "xcp/scripted_slave.h"

namespace lm::xcp {
namespace {

using test::Bytes;
using test::hex;
using test::hexText;

std::string text(const Packet& packet) {
    return hexText(packet.data(), packet.size());
}

TEST(Packet, NamesCommandsErrorsAndEvents) {
    const std::pair<int, const char*> commands[] = {{0xFF, "CONNECT"},
                                                    {0xF2, "TRANSPORT_LAYER_CMD"},
                                                    {0xE7, "GET_PAGE_INFO"},
                                                    {0xDD, "START_STOP_SYNCH"},
                                                    {0xD7, "GET_DAQ_EVENT_INFO"},
                                                    {0xD2, "PROGRAM_START"},
                                                    {0xC7, "WRITE_DAQ_MULTIPLE"},
                                                    {0xC6, "UNKNOWN_CMD"},
                                                    {0x00, "UNKNOWN_CMD"}};
    for (const auto& row : commands) {
        EXPECT_EQ(commandName(static_cast<std::uint8_t>(row.first)), row.second);
    }
    const std::pair<int, const char*> events[] = {{0x00, "EV_RESUME_MODE"}, {0x04, "EV_UNKNOWN"},
                                                  {0x05, "EV_CMD_PENDING"}, {0x07, "EV_SESSION_TERMINATED"},
                                                  {0x0B, "EV_WAKE_UP"},     {0x0C, "EV_UNKNOWN"},
                                                  {0xFD, "EV_UNKNOWN"},     {0xFE, "EV_USER"},
                                                  {0xFF, "EV_TRANSPORT"}};
    for (const auto& row : events) {
        EXPECT_EQ(eventName(static_cast<std::uint8_t>(row.first)), row.second);
    }
    const struct {
        std::uint8_t code;
        const char* message;
        ErrorCode category;
    } errors[] = {{0x00, "UPLOAD: ERR_CMD_SYNCH (0x00)", ErrorCode::protocolError},
                  {0x11, "UPLOAD: ERR_DAQ_ACTIVE (0x11)", ErrorCode::wouldBlock},
                  {0x20, "UPLOAD: ERR_CMD_UNKNOWN (0x20)", ErrorCode::unsupported},
                  {0x22, "UPLOAD: ERR_OUT_OF_RANGE (0x22)", ErrorCode::invalidArgument},
                  {0x25, "UPLOAD: ERR_ACCESS_LOCKED (0x25)", ErrorCode::permissionDenied},
                  {0x33, "UPLOAD: ERR_RESOURCE_TEMPORARY_NOT_ACCESSIBLE (0x33)", ErrorCode::wouldBlock},
                  {0x34, "UPLOAD: ERR_UNKNOWN_CODE (0x34)", ErrorCode::protocolError}};
    for (const auto& row : errors) {
        const Error error = errorReply(0xF5, row.code);
        EXPECT_EQ(error.message, row.message);
        EXPECT_EQ(error.code, row.category);
        EXPECT_EQ(error.detail, row.code);
    }
}

TEST(Packet, BuildsCommandsInBothByteOrders) {
    const ByteOrder intel = ByteOrder::littleEndian;
    const ByteOrder motorola = ByteOrder::bigEndian;
    const Address address{0x12345678, 1};
    const std::pair<Packet, const char*> rows[] = {
        {buildPlain(Command::freeDaq), "D6"},
        {buildConnect(1), "FF 01"},
        {buildSetMta(address, motorola), "F6 00 00 01 12 34 56 78"},
        {buildSetMta(address, intel), "F6 00 00 01 78 56 34 12"},
        {buildUpload(7), "F5 07"},
        {buildShortUpload(4, address, motorola), "F4 04 00 01 12 34 56 78"},
        {buildGetDaqEventInfo(0x102, motorola), "D7 00 01 02"},
        {buildAllocDaq(0x102, intel), "D5 00 02 01"},
        {buildAllocOdt(0x102, 3, motorola), "D4 00 01 02 03"},
        {buildAllocOdtEntry(0x102, 3, 4, intel), "D3 00 02 01 03 04"},
        {buildSetDaqPtr(0x102, 3, 4, motorola), "E2 00 01 02 03 04"},
        {buildWriteDaq(2, address, intel), "E1 FF 02 01 78 56 34 12"},
        {buildSetDaqListMode(0x10, 0x102, 0x304, 5, motorola), "E0 10 01 02 03 04 05 00"},
        {buildStartStopDaqList(2, 0x102, intel), "DE 02 02 01"},
        {buildStartStopSynch(1), "DD 01"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(text(row.first), row.second);
    }
}

TEST(Packet, BuildsDownloadWithinMaxCto) {
    const char* const misaligned = "DOWNLOAD data size must be a non-zero multiple of AG";
    const char* const tooLarge = "DOWNLOAD data does not fit into MAX_CTO";
    const struct {
        const char* data;
        std::uint8_t granularity;
        std::uint16_t maxCto;
        const char* result;
    } rows[] = {{"", 1, 8, misaligned},
                {"01 02 03", 2, 8, misaligned},
                {"01 02 03 04", 4, 8, "F0 01 00 00 01 02 03 04"},
                {"01 02 03 04 05 06 07 08", 4, 8, tooLarge},
                {"01 02 03 04 05 06", 1, 8, "F0 06 01 02 03 04 05 06"},
                {"01 02 03 04 05 06 07", 1, 8, tooLarge},
                {"01 02 03 04 05 06", 2, 8, "F0 03 01 02 03 04 05 06"},
                {"01", 1, 256, tooLarge}};
    for (const auto& row : rows) {
        const auto built = buildDownload(hex(row.data), row.granularity, row.maxCto);
        EXPECT_EQ(built ? text(built.value()) : built.error().message, row.result) << row.data;
    }
}

TEST(Packet, ParsesFixedResponsesCutAtEveryLength) {
    const Bytes connect = hex("FF 05 01 08 01 02 03 04");
    const auto info = parseConnect(connect);
    ASSERT_TRUE(info);
    EXPECT_EQ(info.value().resource, 5);
    EXPECT_EQ(info.value().maxCto, 8);
    EXPECT_EQ(info.value().maxDto, 0x102);
    EXPECT_EQ(info.value().protocolLayerVersion, 3);
    EXPECT_EQ(info.value().transportLayerVersion, 4);
    for (std::size_t length = 0; length < 8; ++length) {
        EXPECT_EQ(parseConnect({connect.data(), length}).error().message,
                  "XCP response to CONNECT too short");
        EXPECT_EQ(parseCommModeInfo({connect.data(), length}).error().message,
                  "XCP response to GET_COMM_MODE_INFO too short");
        const auto status = parseStatus({connect.data(), length}, ByteOrder::bigEndian);
        ASSERT_EQ(status.ok(), length >= 6);
        if (status) {
            EXPECT_EQ(status.value().sessionConfigurationId, 0x102);
        } else {
            EXPECT_EQ(status.error().message, "XCP response to GET_STATUS too short");
        }
    }
    EXPECT_EQ(parseCommModeInfo(connect).value().maxBs, 1);
    EXPECT_EQ(parseCommModeInfo(connect).value().driverVersion, 4);
}

TEST(Packet, RefusesInvalidConnectResponses) {
    const char* const invalid = "CONNECT: invalid MAX_CTO/MAX_DTO";
    const std::pair<const char*, const char*> rows[] = {
        {"FF 00 06 08 08 00 01 01", "CONNECT: reserved address granularity"},
        {"FF 00 00 07 08 00 01 01", invalid},
        {"FF 00 00 08 07 00 01 01", invalid},
        {"FF 00 04 0A 08 00 01 01", invalid},
        {"FF 00 02 08 09 00 01 01", invalid}};
    for (const auto& row : rows) {
        EXPECT_EQ(parseConnect(hex(row.first)).error().message, row.second) << row.first;
    }
}

}  // namespace
}  // namespace lm::xcp
