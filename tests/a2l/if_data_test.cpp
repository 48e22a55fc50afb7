#include "a2l/if_data.h"

#include <string>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "a2l/tokenizer.h"

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

/// "/begin KEYWORD ... /end KEYWORD" for a text that starts with the keyword.
std::string block(const std::string& text) {
    return fmt::format("/begin {} /end {}", text, text.substr(0, text.find(' ')));
}

TEST(IfData, ReadsEveryPart) {
    const std::pair<std::string, std::string> rows[] = {
        {"PROTOCOL_LAYER 0x0101 1000 0x7D0 0 0 0 0 65535 255 65535",
         "layer 257 [1000, 2000, 0, 0, 0, 0, 65535] 255 65535 - - []\n"},
        {"PROTOCOL_LAYER 1 1 2 3 4 5 6 7 8 9 BYTE_ORDER_MSB_FIRST ADDRESS_GRANULARITY_WORD OPTIONAL_CMD"
         " GET_ID OPTIONAL_LEVEL1_CMD OPTIONAL_CMD OPTIONAL_CMD SET_MTA COMMUNICATION_MODE_SUPPORTED BLOCK",
         "layer 1 [1, 2, 3, 4, 5, 6, 7] 8 9 big 2 [\"GET_ID\", \"SET_MTA\"]\n"},
        {"PROTOCOL_LAYER 1 1 2 3 4 5 6 7 8 9 BYTE_ORDER_MSB_LAST ADDRESS_GRANULARITY_DWORD",
         "layer 1 [1, 2, 3, 4, 5, 6, 7] 8 9 little 4 []\n"},
        {"DAQ DYNAMIC 0 2 0 /begin TIMESTAMP_SUPPORTED 1 SIZE_DWORD UNIT_1US /end TIMESTAMP_SUPPORTED"
         " /begin EVENT \"10 ms\" \"10\" 0xFFFF DAQ 255 10 6 1 EVENT /begin X EVENT /end X /end EVENT"
         " /begin EVENT \"b\" \"\" 1 DAQ_STIM 1 0 0 0 /end EVENT",
         "daq true 4\nevent 10 ms 10 65535 DAQ 255 10 6 1\nevent b  1 DAQ_STIM 1 0 0 0\n"},
        {"DAQ X /begin TIMESTAMP_SUPPORTED 1 NO_TIME_STAMP /end TIMESTAMP_SUPPORTED", "daq false -\n"},
        {"XCP_ON_CAN 1 CAN_ID_BROADCAST 256 CAN_ID_MASTER 0x80000001 CAN_ID_SLAVE 2 BAUDRATE 500000"
         " MAX_DLC_REQUIRED /begin DAQ_LIST_CAN_ID 0 FIXED 0x300 /end DAQ_LIST_CAN_ID"
         " /begin DAQ_LIST_CAN_ID 1 VARIABLE /end DAQ_LIST_CAN_ID",
         "can 2147483649 2 256 500000 true fd false - - [768]\n"},
        {"XCP_ON_CAN 1 /begin CAN_FD MAX_DLC 32 CAN_FD_DATA_TRANSFER_BAUDRATE 7 MAX_DLC_REQUIRED /end CAN_FD",
         "can - - - - true fd true 7 32 []\n"},
        {"XCP_ON_UDP_IP 0x100 5555 HOST_NAME \"ecu\" ADDRESS \"10.0.0.1\"", "udp 5555 ecu\n"},
        {"XCP_ON_UDP_IP 1 65535 IPV6 \"::1\"", "udp 65535 ::1\n"},
        {"XCP_ON_TCP_IP 1 2", "tcp\n"},
        // The first of each kind that can be read counts, also over several IF_DATA blocks.
        {"XCP_ON_SxI 1 1 PARITY_NONE /end XCP_ON_SxI /begin XCP_ON_SxI 1 2 /end XCP_ON_SxI /end IF_DATA"
         " /begin IF_DATA XCPplus 0x104 /begin DAQ STATIC /end DAQ /begin XCP_ON_SxI 1 3",
         "daq false -\nserial 1\n"},
    };
    for (const auto& [text, record] : rows)
        EXPECT_EQ(read(block("IF_DATA XCP " + block(text))), record) << text;
    EXPECT_EQ(read("/begin IF_DATA CCP /begin DAQ STATIC /end DAQ /end IF_DATA"), "");
    EXPECT_EQ(read("/begin IF_DATA \"XCP\" /begin DAQ STATIC /end DAQ /end IF_DATA"), "");
}

TEST(IfData, LeavesOutWhatItCannotRead) {
    const std::pair<std::string, std::string> rows[] = {
        {"PROTOCOL_LAYER x", "version must be a number, got 'x'"},
        {"PROTOCOL_LAYER 1 0 65536", "timeout must be a non-negative integer"},
        {"PROTOCOL_LAYER 1 0 0 0 0 0 0 -1", "timeout must be a non-negative integer"},
        {"PROTOCOL_LAYER 1 0 0 0 0 0 0 0 256", "MAX_CTO must be a non-negative integer"},
        {"PROTOCOL_LAYER 1 0 0 0 0 0 0 0 8 65536", "MAX_DTO must be a non-negative integer"},
        {"PROTOCOL_LAYER 1 0 0 0 0 0 0 0 8 8 OPTIONAL_CMD \"x\"", "OPTIONAL_CMD must not be a string"},
        {"DAQ", "missing mode"},
        {"XCP_ON_CAN 1 CAN_ID_MASTER x", "CAN_ID_MASTER must be a non-negative integer"},
        {"XCP_ON_CAN 1 CAN_ID_SLAVE", "missing CAN_ID_SLAVE"},
        {"XCP_ON_UDP_IP 1 65536", "port must be a non-negative integer"},
        {"XCP_ON_UDP_IP 1 2 ADDRESS 10", "ADDRESS must be a string"},
        {"XCP_ON_SxI 1", "missing baud rate"},
        {"XCP_ON_TCP_IP", "missing version"},
    };
    for (const auto& [text, problem] : rows) {
        EXPECT_EQ(read(block("IF_DATA XCP " + block(text) + " /begin XCP_ON_TCP_IP 1 2 /end XCP_ON_TCP_IP")),
                  fmt::format("tcp\nskipped: {} (line 1): {}", text.substr(0, text.find(' ')), problem));
    }
    EXPECT_EQ(read(block("IF_DATA XCP /begin DAQ DYNAMIC\n/begin EVENT \"a\" 1 /end EVENT\n"
                         "/begin EVENT \"b\" \"\" 65536 /end EVENT\n/begin EVENT \"d\" \"\" 1 DAQ 1 0 6 0 "
                         "/end EVENT /end DAQ /begin XCP_ON_CAN 1 /begin CAN_FD MAX_DLC 256 /end CAN_FD\n"
                         "/begin DAQ_LIST_CAN_ID 0 FIXED /end DAQ_LIST_CAN_ID /end XCP_ON_CAN")),
              "daq true -\nevent d  1 DAQ 1 0 6 0\ncan - - - - false fd false - - []\n"
              "skipped: EVENT (line 2): short name must be a string\n"
              "skipped: EVENT (line 3): channel must be a non-negative integer\n"
              "skipped: CAN_FD (line 4): MAX_DLC must be a non-negative integer\n"
              "skipped: DAQ_LIST_CAN_ID (line 5): missing FIXED");
}

}  // namespace
}  // namespace lm::a2l
