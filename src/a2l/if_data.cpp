#include "a2l/if_data.h"

#include <array>
#include <string_view>

#include "a2l/arguments.h"
#include "a2l/block_parts.h"
#include "a2l/daq_block.h"

namespace lm::a2l {
namespace {

XcpProtocolLayer readProtocolLayer(const Block& block, Diagnostics&) {
    enum class Word : std::uint8_t { other, little, big, byte, word, dword, command, keys, blocks };
    static constexpr std::array kKeywords = {
        OptionalKeyword<Word>{"BYTE_ORDER_MSB_LAST", 0, Word::little},
        OptionalKeyword<Word>{"BYTE_ORDER_MSB_FIRST", 0, Word::big},
        OptionalKeyword<Word>{"ADDRESS_GRANULARITY_BYTE", 0, Word::byte},
        OptionalKeyword<Word>{"ADDRESS_GRANULARITY_WORD", 0, Word::word},
        OptionalKeyword<Word>{"ADDRESS_GRANULARITY_DWORD", 0, Word::dword},
        OptionalKeyword<Word>{"OPTIONAL_CMD", 1, Word::command},
        OptionalKeyword<Word>{"MASTER", 2, Word::blocks},  // of COMMUNICATION_MODE_SUPPORTED BLOCK
        OptionalKeyword<Word>{"OPTIONAL_LEVEL1_CMD", 1, Word::other},
        OptionalKeyword<Word>{"SEED_AND_KEY_EXTERNAL_FUNCTION", 1, Word::keys},
    };
    XcpProtocolLayer layer;
    layer.version = readNumber(block, 0, "version");
    std::size_t next = 1;
    for (std::uint16_t& timeout : layer.timeoutsMs)
        timeout = readCount<std::uint16_t>(block, next++, "timeout");
    layer.maxCto = readCount<std::uint8_t>(block, next++, "MAX_CTO");
    layer.maxDto = readCount<std::uint16_t>(block, next++, "MAX_DTO");
    forEachOptional<Word>(block, next, kKeywords, [&](Word word, std::size_t value) {
        if (word == Word::little) layer.byteOrder = ByteOrder::littleEndian;
        if (word == Word::big) layer.byteOrder = ByteOrder::bigEndian;
        if (word == Word::byte) layer.addressGranularity = std::uint8_t{1};
        if (word == Word::word) layer.addressGranularity = std::uint8_t{2};
        if (word == Word::dword) layer.addressGranularity = std::uint8_t{4};
        if (word == Word::keys) layer.keyLibrary = readString(block, value, "SEED_AND_KEY_EXTERNAL_FUNCTION");
        if (word == Word::blocks) {
            layer.writeBlocks = {readCount<std::uint8_t>(block, value, "MAX_BS"),
                                 readCount<std::uint8_t>(block, value + 1, "MIN_ST")};
        }
        if (word == Word::command) {
            layer.optionalCommands.emplace_back(readIdentifier(block, value, "OPTIONAL_CMD"));
        }
    });
    return layer;
}

XcpPag readPag(const Block& block, Diagnostics&) {
    XcpPag pag;
    pag.maxSegments = readCount<std::uint8_t>(block, 0, "MAX_SEGMENTS");
    for (const Token& token : block.tokens())
        pag.freeze = pag.freeze || token.is("FREEZE_SUPPORTED");
    return pag;
}

/// Whether the block was one that counts for the medium around it alone.
bool readOfMedium(XcpOfMedium& medium, const Block& child, Diagnostics& diagnostics) {
    if (child.keyword == "PROTOCOL_LAYER") {
        readFirst(medium.protocolLayer, child, readProtocolLayer, diagnostics);
    } else if (child.keyword == "DAQ") {
        readFirst(medium.daq, child, readDaq, diagnostics);
    } else {
        return false;
    }
    return true;
}

struct CanFd {
    std::optional<std::uint32_t> dataBaudrate;
    std::optional<std::uint8_t> maxDlc;
    bool maxDlcRequired = false;
};

CanFd readCanFd(const Block& block, Diagnostics&) {
    enum class Word : std::uint8_t { maxDlc, dataBaudrate, maxDlcRequired };
    static constexpr std::array kKeywords = {
        OptionalKeyword<Word>{"MAX_DLC", 1, Word::maxDlc},
        OptionalKeyword<Word>{"CAN_FD_DATA_TRANSFER_BAUDRATE", 1, Word::dataBaudrate},
        OptionalKeyword<Word>{"MAX_DLC_REQUIRED", 0, Word::maxDlcRequired},
    };
    CanFd fd;
    forEachOptional<Word>(block, 0, kKeywords, [&](Word word, std::size_t value) {
        if (word == Word::maxDlc) fd.maxDlc = readCount<std::uint8_t>(block, value, "MAX_DLC");
        if (word == Word::dataBaudrate) {
            fd.dataBaudrate = readCount<std::uint32_t>(block, value, "CAN_FD_DATA_TRANSFER_BAUDRATE");
        }
        if (word == Word::maxDlcRequired) fd.maxDlcRequired = true;
    });
    return fd;
}

// The list's number, then VARIABLE or FIXED and the identifier.
XcpDaqListId readListId(const Block& block, Diagnostics&) {
    XcpDaqListId id;
    id.list = readCount<std::uint16_t>(block, 0, "list number");
    for (std::size_t i = 1; i < block.tokens().size(); ++i) {
        if (!block.tokens()[i].is("FIXED")) continue;
        id.id = readCount<std::uint32_t>(block, i + 1, "FIXED");
        break;
    }
    return id;
}

void readCanChild(XcpOnCan& can, const Block& child, Diagnostics& diagnostics) {
    if (readOfMedium(can, child, diagnostics)) return;
    if (child.keyword == "CAN_FD") {
        const auto fd = readPart(child, readCanFd, diagnostics);
        if (!fd || can.fd) return;
        can.fd = true;
        can.dataBaudrate = fd->dataBaudrate;
        can.maxDlc = fd->maxDlc;
        can.maxDlcRequired = can.maxDlcRequired || fd->maxDlcRequired;
    } else if (child.keyword == "DAQ_LIST_CAN_ID") {
        if (const auto id = readPart(child, readListId, diagnostics)) can.daqListIds.push_back(*id);
    }
}

XcpOnCan readCan(const Block& block, Diagnostics& diagnostics) {
    enum class Word : std::uint8_t { broadcast, master, slave, baudrate, maxDlcRequired };
    static constexpr std::array kKeywords = {
        OptionalKeyword<Word>{"CAN_ID_BROADCAST", 1, Word::broadcast},
        OptionalKeyword<Word>{"CAN_ID_MASTER", 1, Word::master},
        OptionalKeyword<Word>{"CAN_ID_SLAVE", 1, Word::slave},
        OptionalKeyword<Word>{"BAUDRATE", 1, Word::baudrate},
        OptionalKeyword<Word>{"MAX_DLC_REQUIRED", 0, Word::maxDlcRequired},
    };
    XcpOnCan can;
    const auto number = [&](std::size_t index, std::string_view label) {
        return readCount<std::uint32_t>(block, index, label);
    };
    forEachOptional<Word>(block, 0, kKeywords, [&](Word word, std::size_t value) {
        if (word == Word::broadcast) can.broadcastId = number(value, "CAN_ID_BROADCAST");
        if (word == Word::master) can.masterId = number(value, "CAN_ID_MASTER");
        if (word == Word::slave) can.slaveId = number(value, "CAN_ID_SLAVE");
        if (word == Word::baudrate) can.baudrate = number(value, "BAUDRATE");
        if (word == Word::maxDlcRequired) can.maxDlcRequired = true;
    });
    for (const Block& child : block.children())
        readCanChild(can, child, diagnostics);
    return can;
}

XcpOnUdp readUdp(const Block& block, Diagnostics& diagnostics) {
    XcpOnUdp udp;
    readNumber(block, 0, "version");
    udp.port = readCount<std::uint16_t>(block, 1, "port");
    const auto tokens = block.tokens();
    for (std::size_t i = 2; i < tokens.size() && udp.host.empty(); ++i) {
        if (!tokens[i].is("ADDRESS") && !tokens[i].is("IPV6") && !tokens[i].is("HOST_NAME")) continue;
        udp.host = readString(block, i + 1, tokens[i].text);
    }
    for (const Block& child : block.children())
        readOfMedium(udp, child, diagnostics);
    return udp;
}

XcpOnSerial readSerial(const Block& block, Diagnostics& diagnostics) {
    XcpOnSerial serial;
    readNumber(block, 0, "version");
    serial.baudrate = readCount<std::uint32_t>(block, 1, "baud rate");
    for (const Block& child : block.children())
        readOfMedium(serial, child, diagnostics);
    return serial;
}

}  // namespace

bool isXcpInterfaceData(const Block& block) {
    const auto tokens = block.tokens();
    return block.keyword == "IF_DATA" && !tokens.empty() && (tokens[0].is("XCP") || tokens[0].is("XCPplus"));
}

bool isCcpInterfaceData(const Block& block) {
    const auto tokens = block.tokens();
    return block.keyword == "IF_DATA" && !tokens.empty() && tokens[0].is("ASAP1B_CCP");
}

void readXcpInterface(const Block& ifData, XcpInterface& xcp, Diagnostics& diagnostics) {
    for (const Block& block : ifData.children()) {
        if (block.keyword == "PROTOCOL_LAYER")
            readFirst(xcp.protocolLayer, block, readProtocolLayer, diagnostics);
        if (block.keyword == "DAQ") readFirst(xcp.daq, block, readDaq, diagnostics);
        if (block.keyword == "PAG") readFirst(xcp.pag, block, readPag, diagnostics);
        if (block.keyword == "XCP_ON_CAN") readFirst(xcp.can, block, readCan, diagnostics);
        if (block.keyword == "XCP_ON_UDP_IP") readFirst(xcp.udp, block, readUdp, diagnostics);
        if (block.keyword == "XCP_ON_TCP_IP") {
            xcp.tcp = true;
            readFirst(xcp.tcpTarget, block, readUdp, diagnostics);  // the same fields
        }
        if (block.keyword == "XCP_ON_SxI") readFirst(xcp.serial, block, readSerial, diagnostics);
        if (block.keyword == "XCP_ON_USB" || block.keyword == "XCP_ON_FLX")
            xcp.unsupported.emplace_back(block.keyword);
    }
}

}  // namespace lm::a2l
