#include "a2l/if_data.h"

#include <string>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

namespace lm::a2l {
namespace {

std::string number(const auto& value) {
    return value ? fmt::format("{}", *value) : std::string("-");
}

std::string dump(const XcpInterface& xcp) {
    std::string out;
    if (const auto& p = xcp.protocolLayer) {
        out += fmt::format("layer {} {} {} {} {} {} {}\n", p->version, p->timeoutsMs, p->maxCto, p->maxDto,
                           p->byteOrder ? (*p->byteOrder == ByteOrder::bigEndian ? "big" : "little") : "-",
                           number(p->addressGranularity), p->optionalCommands);
    }
    if (xcp.daq) {
        out += fmt::format("daq {} {}\n", xcp.daq->dynamic, number(xcp.daq->timestampSize));
        for (const XcpEvent& e : xcp.daq->events) {
            out += fmt::format("event {} {} {} {} {} {} {} {}\n", e.name, e.shortName, e.channel, e.direction,
                               e.maxDaqList, e.timeCycle, e.timeUnit, e.priority);
        }
    }
    if (const auto& c = xcp.can) {
        out += fmt::format("can {} {} {} {} {} fd {} {} {} {}\n", number(c->masterId), number(c->slaveId),
                           number(c->broadcastId), number(c->baudrate), c->maxDlcRequired, c->fd,
                           number(c->dataBaudrate), number(c->maxDlc), c->daqListIds);
    }
    if (xcp.udp) out += fmt::format("udp {} {}\n", number(xcp.udp->port), xcp.udp->host);
    if (xcp.tcp) out += "tcp\n";
    if (xcp.serial) out += fmt::format("serial {}\n", number(xcp.serial->baudrate));
    return out;
}

// The record of all IF_DATA blocks of the text, then the diagnostics.
std::string read(std::string_view text) {
    const auto root = parse(text);
    if (!root.ok()) return root.error().text();
    XcpInterface xcp;
    Diagnostics diagnostics;
    for (const Block& block : root.value().children()) {
        if (isXcpInterfaceData(block)) readXcpInterface(block, xcp, diagnostics);
    }
    return dump(xcp) + fmt::format("{}", fmt::join(diagnostics.take(), "\n"));
}

TEST(IfData, ReadsEveryPart) {
    const struct {
        const char* blocks;
        const char* record;
    } kRows[] = {
        {"", ""},
        {"/begin PROTOCOL_LAYER 0x0101 1000 0x7D0 0 0 0 0 65535 255 65535 /end PROTOCOL_LAYER",
         "layer 257 [1000, 2000, 0, 0, 0, 0, 65535] 255 65535 - - []\n"},
        {"/begin PROTOCOL_LAYER 1 1 2 3 4 5 6 7 8 9 BYTE_ORDER_MSB_FIRST ADDRESS_GRANULARITY_WORD "
         "OPTIONAL_CMD GET_ID"
         " OPTIONAL_LEVEL1_CMD OPTIONAL_CMD OPTIONAL_CMD SET_MTA COMMUNICATION_MODE_SUPPORTED BLOCK SLAVE "
         "MASTER 1 2"
         " /end PROTOCOL_LAYER",
         "layer 1 [1, 2, 3, 4, 5, 6, 7] 8 9 big 2 [\"GET_ID\", \"SET_MTA\"]\n"},
        {"/begin PROTOCOL_LAYER 1 1 2 3 4 5 6 7 8 9 BYTE_ORDER_MSB_LAST ADDRESS_GRANULARITY_DWORD /end "
         "PROTOCOL_LAYER",
         "layer 1 [1, 2, 3, 4, 5, 6, 7] 8 9 little 4 []\n"},
        {"/begin DAQ STATIC /end DAQ", "daq false -\n"},
        {"/begin DAQ DYNAMIC 0 2 0 /begin TIMESTAMP_SUPPORTED 1 SIZE_DWORD UNIT_1US /end TIMESTAMP_SUPPORTED"
         " /begin EVENT \"10 ms\" \"10\" 0xFFFF DAQ 255 10 6 1 CONSISTENCY EVENT /begin X EVENT /end X /end "
         "EVENT"
         " /begin EVENT \"b\" \"\" 1 DAQ_STIM 1 0 0 0 /end EVENT /end DAQ",
         "daq true 4\nevent 10 ms 10 65535 DAQ 255 10 6 1\nevent b  1 DAQ_STIM 1 0 0 0\n"},
        {"/begin DAQ X /begin TIMESTAMP_SUPPORTED 1 SIZE_WORD /end TIMESTAMP_SUPPORTED /end DAQ",
         "daq false 2\n"},
        {"/begin DAQ X /begin TIMESTAMP_SUPPORTED 1 NO_TIME_STAMP /end TIMESTAMP_SUPPORTED /end DAQ",
         "daq false -\n"},
        {"/begin XCP_ON_CAN 0x101 CAN_ID_BROADCAST 256 CAN_ID_MASTER 0x80000001 CAN_ID_SLAVE 2 BAUDRATE "
         "500000"
         " SAMPLE_RATE SINGLE MAX_DLC_REQUIRED /begin DAQ_LIST_CAN_ID 0 FIXED 0x300 /end DAQ_LIST_CAN_ID"
         " /begin DAQ_LIST_CAN_ID 1 VARIABLE /end DAQ_LIST_CAN_ID /begin DAQ_LIST_CAN_ID 2 FIXED 0x301"
         " /end DAQ_LIST_CAN_ID /end XCP_ON_CAN",
         "can 2147483649 2 256 500000 true fd false - - [768, 769]\n"},
        {"/begin XCP_ON_CAN 1 /begin CAN_FD MAX_DLC 32 CAN_FD_DATA_TRANSFER_BAUDRATE 2000000 MAX_DLC_REQUIRED"
         " /end CAN_FD /end XCP_ON_CAN",
         "can - - - - true fd true 2000000 32 []\n"},
        {"/begin XCP_ON_UDP_IP 0x100 5555 HOST_NAME \"ecu\" ADDRESS \"10.0.0.1\" /end XCP_ON_UDP_IP",
         "udp 5555 ecu\n"},
        {"/begin XCP_ON_UDP_IP 1 65535 IPV6 \"::1\" /end XCP_ON_UDP_IP /begin XCP_ON_TCP_IP 1 2 /end "
         "XCP_ON_TCP_IP",
         "udp 65535 ::1\ntcp\n"},
        {"/begin XCP_ON_SxI 0x101 115200 ASYNCH_FULL_DUPLEX_MODE PARITY_NONE ONE_STOP_BIT /end XCP_ON_SxI",
         "serial 115200\n"},
        // The first of each kind that can be read counts, also over several IF_DATA blocks.
        {"/begin XCP_ON_SxI 1 1 /end XCP_ON_SxI /begin XCP_ON_SxI 1 2 /end XCP_ON_SxI /end IF_DATA /begin "
         "IF_DATA XCPplus"
         " 0x104 /begin XCP_ON_SxI 1 3 /end XCP_ON_SxI /begin DAQ STATIC /end DAQ",
         "daq false -\nserial 1\n"},
    };
    for (const auto& row : kRows) {
        EXPECT_EQ(read(fmt::format("/begin IF_DATA XCP {} /end IF_DATA", row.blocks)), row.record)
            << row.blocks;
    }
    EXPECT_EQ(read("/begin IF_DATA CCP /begin DAQ STATIC /end DAQ /end IF_DATA"), "");
    EXPECT_EQ(read("/begin IF_DATA \"XCP\" /begin DAQ STATIC /end DAQ /end IF_DATA"), "");
}

TEST(IfData, LeavesOutWhatItCannotRead) {
    const struct {
        const char* block;
        const char* outcome;
    } kRows[] = {
        {"PROTOCOL_LAYER", "(line 1): missing version"},
        {"PROTOCOL_LAYER x", "(line 1): version must be a number, got 'x'"},
        {"PROTOCOL_LAYER 1 0 65536", "(line 1): timeout must be a non-negative integer"},
        {"PROTOCOL_LAYER 1 0 0 0 0 0 0 -1", "(line 1): timeout must be a non-negative integer"},
        {"PROTOCOL_LAYER 1 0 0 0 0 0 0 0 256", "(line 1): MAX_CTO must be a non-negative integer"},
        {"PROTOCOL_LAYER 1 0 0 0 0 0 0 0 8 65536", "(line 1): MAX_DTO must be a non-negative integer"},
        {"PROTOCOL_LAYER 1 0 0 0 0 0 0 0 8 8 OPTIONAL_CMD \"x\"",
         "(line 1): OPTIONAL_CMD must not be a string"},
        {"DAQ", "(line 1): missing mode"},
        {"XCP_ON_CAN 1 CAN_ID_MASTER x", "(line 1): CAN_ID_MASTER must be a non-negative integer"},
        {"XCP_ON_CAN 1 CAN_ID_SLAVE", "(line 1): missing CAN_ID_SLAVE"},
        {"XCP_ON_UDP_IP 1", "(line 1): missing port"},
        {"XCP_ON_UDP_IP 1 65536", "(line 1): port must be a non-negative integer"},
        {"XCP_ON_UDP_IP 1 2 ADDRESS 10", "(line 1): ADDRESS must be a string"},
        {"XCP_ON_SxI 1", "(line 1): missing baud rate"},
    };
    for (const auto& row : kRows) {
        const std::string block = row.block;
        const std::string keyword = block.substr(0, block.find(' '));
        EXPECT_EQ(
            read(fmt::format(
                "/begin IF_DATA XCP /begin {} /end {}\n/begin XCP_ON_TCP_IP /end XCP_ON_TCP_IP /end IF_DATA",
                block, keyword)),
            fmt::format("tcp\nskipped: {} {}", keyword, row.outcome))
            << block;
    }
    EXPECT_EQ(
        read("/begin IF_DATA XCP /begin DAQ DYNAMIC\n/begin EVENT \"a\" 1 /end EVENT\n"
             "/begin EVENT \"b\" \"\" 65536 /end EVENT /begin EVENT \"c\" \"\" 1 DAQ 1 0 6 256 /end EVENT\n"
             "/begin EVENT \"d\" \"\" 1 DAQ 1 0 6 0 /end EVENT /end DAQ\n"
             "/begin XCP_ON_CAN 1 BAUDRATE 5 /begin CAN_FD MAX_DLC 256 /end CAN_FD\n"
             "/begin DAQ_LIST_CAN_ID 0 FIXED /end DAQ_LIST_CAN_ID /end XCP_ON_CAN /end IF_DATA"),
        "daq true -\nevent d  1 DAQ 1 0 6 0\ncan - - - 5 false fd false - - []\n"
        "skipped: EVENT (line 2): short name must be a string\n"
        "skipped: EVENT (line 3): channel must be a non-negative integer\n"
        "skipped: EVENT (line 3): priority must be a non-negative integer\n"
        "skipped: CAN_FD (line 5): MAX_DLC must be a non-negative integer\n"
        "skipped: DAQ_LIST_CAN_ID (line 6): missing FIXED");
}

}  // namespace
}  // namespace lm::a2l
