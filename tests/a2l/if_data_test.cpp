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

std::string dump(const XcpDaq& daq) {
    std::string flags;
    for (const auto& [flag, letter] : {std::pair{daq.overloadInPid, 'p'},
                                       {daq.overloadEvent, 'e'},
                                       {daq.prescaler, 's'},
                                       {daq.resume, 'r'},
                                       {daq.pidOff, 'o'}})
        if (flag) flags += letter;
    std::string out = fmt::format("daq {} {}/{}/{} key {}{}{} entry {}/{} {}", daq.dynamic, daq.maxDaq,
                                  daq.maxEventChannel, daq.minDaq, daq.optimisation, daq.addressExtension,
                                  daq.identification, daq.granularity, daq.maxEntrySize, flags);
    if (const auto& t = daq.timestamp) out += fmt::format(" stamp {}x{} {}", t->size, t->tickNs(), t->fixed);
    out += '\n';
    for (const XcpDaqList& list : daq.lists) {
        out += fmt::format("list {} {} {}x{} pid {} event {} {}", list.number, list.direction, list.maxOdt,
                           list.maxEntries, number(list.firstPid), number(list.fixedEvent),
                           daq.isPredefined(list));
        for (const XcpOdt& odt : list.odts) {
            out += fmt::format(" odt {}", odt.number);
            for (const XcpOdtEntry& e : odt.entries)
                out += fmt::format(" {}:{:x}/{}/{}/{}", e.number, e.address.address, e.address.extension,
                                   e.size, e.bitOffset);
        }
        out += '\n';
    }
    for (const XcpEvent& e : daq.events)
        out += fmt::format("event {} {} {} {} {} {} {} {} {}\n", e.name, e.shortName, e.channel, e.direction,
                           e.maxDaqList, e.timeCycle, e.timeUnit, e.priority, e.consistency);
    return out;
}

std::string dump(const XcpInterface& xcp) {
    std::string out;
    if (const auto& p = xcp.protocolLayer) {
        out += fmt::format("layer {} {} {} {} {} {} {}\n", p->version, p->timeoutsMs, p->maxCto, p->maxDto,
                           p->byteOrder ? (*p->byteOrder == ByteOrder::bigEndian ? "big" : "little") : "-",
                           number(p->addressGranularity), p->optionalCommands);
    }
    if (xcp.daq) {
        out += dump(*xcp.daq);
    }
    if (const auto& c = xcp.can) {
        std::string lists;
        for (const XcpDaqListId& list : c->daqListIds)
            lists += fmt::format(" {}:{}", list.list, number(list.id));
        out += fmt::format("can {} {} {} {} {} fd {} {} {}{}\n", number(c->masterId), number(c->slaveId),
                           number(c->broadcastId), number(c->baudrate), c->maxDlcRequired, c->fd,
                           number(c->dataBaudrate), number(c->maxDlc), lists);
    }
    if (xcp.can && xcp.can->protocolLayer)
        out += fmt::format("own layer {}\n", xcp.can->protocolLayer->maxDto);
    if (xcp.can && xcp.can->daq) out += "own " + dump(*xcp.can->daq);
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
        {"DAQ DYNAMIC 0 2 0 OPTIMISATION_TYPE_MAX_ENTRY_SIZE ADDRESS_EXTENSION_DAQ "
         "IDENTIFICATION_FIELD_TYPE_RELATIVE_WORD_ALIGNED"
         " GRANULARITY_ODT_ENTRY_SIZE_DAQ_DWORD 248 OVERLOAD_INDICATION_PID"
         " /begin TIMESTAMP_SUPPORTED 25 SIZE_DWORD UNIT_1US TIMESTAMP_FIXED /end TIMESTAMP_SUPPORTED"
         " /begin EVENT \"10 ms\" \"10\" 0xFFFF DAQ 255 10 6 1 EVENT /begin X EVENT /end X CONSISTENCY EVENT "
         "/end EVENT"
         " /begin EVENT \"b\" \"\" 1 DAQ_STIM 1 0 0 0 /end EVENT",
         "daq true 0/2/0 key 533 entry 4/248 p stamp 4x25000 true\nevent 10 ms 10 65535 DAQ 255 10 6 1 "
         "EVENT\n"
         "event b  1 DAQ_STIM 1 0 0 0 \n"},
        // Lists in the order of their numbers; one file leaves the granularity out.
        {"DAQ STATIC 0x3 0x2 1 OPTIMISATION_TYPE_DEFAULT ADDRESS_EXTENSION_ODT "
         "IDENTIFICATION_FIELD_TYPE_ABSOLUTE 0x4"
         " OVERLOAD_INDICATION_EVENT PRESCALER_SUPPORTED RESUME_SUPPORTED MAX_ODT_TOTAL 9 PID_OFF_SUPPORTED"
         " /begin TIMESTAMP_SUPPORTED 1 NO_TIME_STAMP UNIT_1US /end TIMESTAMP_SUPPORTED"
         " /begin DAQ_LIST 2 DAQ_LIST_TYPE DAQ_STIM MAX_ODT 5 MAX_ODT_ENTRIES 7 FIRST_PID 0x10 EVENT_FIXED "
         "300 /end DAQ_LIST"
         " /begin DAQ_LIST 0 DAQ_LIST_TYPE DAQ MAX_ODT 1 MAX_ODT_ENTRIES 2 /begin PREDEFINED"
         " /begin ODT 0 ODT_ENTRY 0 0x1000 1 2 0xFF ODT_ENTRY 1 0x2000 0 1 3 /end ODT /end PREDEFINED /end "
         "DAQ_LIST",
         "daq false 3/2/1 key 010 entry 1/4 esro\nlist 0 DAQ 1x2 pid - event - true odt 0 0:1000/1/2/255 "
         "1:2000/0/1/3\n"
         "list 2 DAQ_STIM 5x7 pid 16 event 300 false\n"},
        {"XCP_ON_CAN 1 CAN_ID_BROADCAST 256 CAN_ID_MASTER 0x80000001 CAN_ID_SLAVE 2 BAUDRATE 500000"
         " MAX_DLC_REQUIRED /begin DAQ_LIST_CAN_ID 0 FIXED 0x300 /end DAQ_LIST_CAN_ID"
         " /begin DAQ_LIST_CAN_ID 1 VARIABLE /end DAQ_LIST_CAN_ID",
         "can 2147483649 2 256 500000 true fd false - - 0:768 1:-\n"},
        {"XCP_ON_CAN 1 /begin CAN_FD MAX_DLC 32 CAN_FD_DATA_TRANSFER_BAUDRATE 7 MAX_DLC_REQUIRED /end CAN_FD",
         "can - - - - true fd true 7 32\n"},
        {"XCP_ON_UDP_IP 0x100 5555 HOST_NAME \"ecu\" ADDRESS \"10.0.0.1\"", "udp 5555 ecu\n"},
        {"XCP_ON_CAN 1 /begin PROTOCOL_LAYER 1 1 2 3 4 5 6 7 8 9 /end PROTOCOL_LAYER /begin DAQ X 0 0 0"
         " IDENTIFICATION_FIELD_TYPE_ABSOLUTE 7 /end DAQ",
         "can - - - - false fd false - -\nown layer 9\nown daq false 0/0/0 key 000 entry 1/7 \n"},
        {"XCP_ON_UDP_IP 1 65535 IPV6 \"::1\"", "udp 65535 ::1\n"},
        {"XCP_ON_TCP_IP 1 2", "tcp\n"},
        // The first of each kind that can be read counts, also over several IF_DATA blocks.
        {"XCP_ON_SxI 1 1 PARITY_NONE /end XCP_ON_SxI /begin XCP_ON_SxI 1 2 /end XCP_ON_SxI /end IF_DATA"
         " /begin IF_DATA XCPplus 0x104 /begin DAQ STATIC 0 0 0 IDENTIFICATION_FIELD_TYPE_ABSOLUTE 7 /end "
         "DAQ /begin XCP_ON_SxI 1 3",
         "daq false 0/0/0 key 000 entry 1/7 \nserial 1\n"},
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
    EXPECT_EQ(
        read(block(
            "IF_DATA XCP /begin DAQ DYNAMIC 5 x 1 IDENTIFICATION_FIELD_TYPE_ABSOLUTE OPTIMISATION_TYPE_X "
            "256\n"
            "/begin EVENT \"a\" 1 /end EVENT\n"
            "/begin EVENT \"b\" \"\" 65536 /end EVENT\n/begin EVENT \"d\" \"\" 1 DAQ 1 0 6 0 "
            "/end EVENT /begin TIMESTAMP_SUPPORTED 1 SIZE_WORD UNIT_X /end TIMESTAMP_SUPPORTED\n"
            "/begin DAQ_LIST 1 MAX_ODT 300 /end DAQ_LIST\n/begin DAQ_LIST 2 MAX_ODT 3 /begin PREDEFINED\n"
            "/begin ODT 0 ODT_ENTRY 0 1 /end ODT /end PREDEFINED /end DAQ_LIST\n"
            "/begin DAQ_LIST 2 /end DAQ_LIST /end DAQ /begin XCP_ON_CAN 1 /begin CAN_FD MAX_DLC 256 "
            "/end CAN_FD\n/begin DAQ_LIST_CAN_ID 0 FIXED /end DAQ_LIST_CAN_ID /end XCP_ON_CAN")),
        "daq true 5/0/1 key 000 entry 1/0  stamp 2x0 false\nlist 2  3x0 pid - event - true\n"
        "event d  1 DAQ 1 0 6 0 \ncan - - - - false fd false - -\n"
        "DAQ (line 1): MAX_EVENT_CHANNEL must be a non-negative integer\n"
        "skipped: EVENT (line 2): short name must be a string\n"
        "skipped: EVENT (line 3): channel must be a non-negative integer\n"
        "TIMESTAMP_SUPPORTED (line 4): missing unit\n"
        "skipped: DAQ_LIST (line 5): MAX_ODT must be a non-negative integer\n"
        "skipped: ODT (line 7): missing ODT_ENTRY address extension\n"
        "DAQ_LIST (line 8): DAQ list 2 stands twice, the first counts\n"
        "skipped: CAN_FD (line 8): MAX_DLC must be a non-negative integer\n"
        "skipped: DAQ_LIST_CAN_ID (line 9): missing FIXED");
}

}  // namespace
}  // namespace lm::a2l
