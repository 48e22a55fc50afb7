#include "xcp/packet.h"

#include <algorithm>
#include <cassert>

#include <spdlog/fmt/fmt.h>

namespace lm::xcp {

namespace {

constexpr std::uint8_t kLowestCommand = 0xC7;
constexpr std::size_t kMultipleHead = 2;
constexpr std::size_t kDaqElementSize = 8;

/// From 0xFF downwards to kLowestCommand.
constexpr std::array<std::string_view, 57> kCommandNames = {
    "CONNECT",
    "DISCONNECT",
    "GET_STATUS",
    "SYNCH",
    "GET_COMM_MODE_INFO",
    "GET_ID",
    "SET_REQUEST",
    "GET_SEED",
    "UNLOCK",
    "SET_MTA",
    "UPLOAD",
    "SHORT_UPLOAD",
    "BUILD_CHECKSUM",
    "TRANSPORT_LAYER_CMD",
    "USER_CMD",
    "DOWNLOAD",
    "DOWNLOAD_NEXT",
    "DOWNLOAD_MAX",
    "SHORT_DOWNLOAD",
    "MODIFY_BITS",
    "SET_CAL_PAGE",
    "GET_CAL_PAGE",
    "GET_PAG_PROCESSOR_INFO",
    "GET_SEGMENT_INFO",
    "GET_PAGE_INFO",
    "SET_SEGMENT_MODE",
    "GET_SEGMENT_MODE",
    "COPY_CAL_PAGE",
    "CLEAR_DAQ_LIST",
    "SET_DAQ_PTR",
    "WRITE_DAQ",
    "SET_DAQ_LIST_MODE",
    "GET_DAQ_LIST_MODE",
    "START_STOP_DAQ_LIST",
    "START_STOP_SYNCH",
    "GET_DAQ_CLOCK",
    "READ_DAQ",
    "GET_DAQ_PROCESSOR_INFO",
    "GET_DAQ_RESOLUTION_INFO",
    "GET_DAQ_LIST_INFO",
    "GET_DAQ_EVENT_INFO",
    "FREE_DAQ",
    "ALLOC_DAQ",
    "ALLOC_ODT",
    "ALLOC_ODT_ENTRY",
    "PROGRAM_START",
    "PROGRAM_CLEAR",
    "PROGRAM",
    "PROGRAM_RESET",
    "GET_PGM_PROCESSOR_INFO",
    "GET_SECTOR_INFO",
    "PROGRAM_PREPARE",
    "PROGRAM_FORMAT",
    "PROGRAM_NEXT",
    "PROGRAM_MAX",
    "PROGRAM_VERIFY",
    "WRITE_DAQ_MULTIPLE",
};
static_assert(kCommandNames.size() == 0x100 - kLowestCommand && !kCommandNames.back().empty());

struct ErrorEntry {
    std::uint8_t code;
    std::string_view name;
    ErrorCode category;
};

constexpr std::array<ErrorEntry, 19> kErrors = {{
    {0x00, "ERR_CMD_SYNCH", ErrorCode::protocolError},
    {0x10, "ERR_CMD_BUSY", ErrorCode::wouldBlock},
    {0x11, "ERR_DAQ_ACTIVE", ErrorCode::wouldBlock},
    {0x12, "ERR_PGM_ACTIVE", ErrorCode::wouldBlock},
    {0x20, "ERR_CMD_UNKNOWN", ErrorCode::unsupported},
    {0x21, "ERR_CMD_SYNTAX", ErrorCode::invalidArgument},
    {0x22, "ERR_OUT_OF_RANGE", ErrorCode::invalidArgument},
    {0x23, "ERR_WRITE_PROTECTED", ErrorCode::permissionDenied},
    {0x24, "ERR_ACCESS_DENIED", ErrorCode::permissionDenied},
    {0x25, "ERR_ACCESS_LOCKED", ErrorCode::permissionDenied},
    {0x26, "ERR_PAGE_NOT_VALID", ErrorCode::invalidArgument},
    {0x27, "ERR_MODE_NOT_VALID", ErrorCode::invalidArgument},
    {0x28, "ERR_SEGMENT_NOT_VALID", ErrorCode::invalidArgument},
    {0x29, "ERR_SEQUENCE", ErrorCode::protocolError},
    {0x2A, "ERR_DAQ_CONFIG", ErrorCode::protocolError},
    {0x30, "ERR_MEMORY_OVERFLOW", ErrorCode::protocolError},
    {0x31, "ERR_GENERIC", ErrorCode::protocolError},
    {0x32, "ERR_VERIFY", ErrorCode::protocolError},
    {0x33, "ERR_RESOURCE_TEMPORARY_NOT_ACCESSIBLE", ErrorCode::wouldBlock},
}};

constexpr ErrorEntry kUnknownError = {0xFF, "ERR_UNKNOWN_CODE", ErrorCode::protocolError};

const ErrorEntry& findError(std::uint8_t code) {
    const auto* const found = std::find_if(kErrors.begin(), kErrors.end(),
                                           [code](const ErrorEntry& entry) { return entry.code == code; });
    return found == kErrors.end() ? kUnknownError : *found;
}

/// From 0x00 upwards.
constexpr std::array<std::string_view, 12> kEventNames = {
    "EV_RESUME_MODE", "EV_CLEAR_DAQ",    "EV_STORE_DAQ",    "EV_STORE_CAL",
    "EV_UNKNOWN",     "EV_CMD_PENDING",  "EV_DAQ_OVERLOAD", "EV_SESSION_TERMINATED",
    "EV_TIME_SYNC",   "EV_STIM_TIMEOUT", "EV_SLEEP",        "EV_WAKE_UP",
};

Packet makePacket(Command command, std::uint8_t length) {
    Packet packet;
    packet.bytes[0] = static_cast<std::uint8_t>(command);
    packet.length = length;
    return packet;
}

template <typename T>
void put(Packet& packet, std::size_t at, T value, ByteOrder order) {
    writeBytes(packet.bytes.data() + at, value, order);
}

void putAddress(Packet& packet, Address address, ByteOrder order) {
    packet.bytes[3] = address.extension;
    put(packet, 4, address.address, order);
}

}  // namespace

std::string_view resourceName(Resource resource) {
    switch (resource) {
        case Resource::calPag:
            return "CAL/PAG";
        case Resource::daq:
            return "DAQ";
        case Resource::stim:
            return "STIM";
        case Resource::pgm:
            break;
    }
    return "PGM";
}

std::optional<Resource> protectedBy(std::uint8_t command) {
    constexpr std::uint8_t kWriteDaqMultiple = 0xC7;
    constexpr std::uint8_t kClearDaqList = 0xE3;
    constexpr std::uint8_t kAllocOdtEntry = 0xD3;
    constexpr std::uint8_t kSetMta = 0xF6;
    if (command > kSetMta) return std::nullopt;
    if (command == static_cast<std::uint8_t>(Command::transportLayer)) return Resource::daq;
    if (command > kClearDaqList) return Resource::calPag;
    if (command >= kAllocOdtEntry || command == kWriteDaqMultiple) return Resource::daq;
    return Resource::pgm;
}

std::string_view commandName(std::uint8_t code) {
    if (code < kLowestCommand) return "UNKNOWN_CMD";
    return kCommandNames[0xFFU - code];
}

std::string_view errorCodeName(std::uint8_t code) {
    return findError(code).name;
}

ErrorCode errorCodeCategory(std::uint8_t code) {
    return findError(code).category;
}

std::string_view eventName(std::uint8_t code) {
    if (code == kEvUser) return "EV_USER";
    if (code == 0xFF) return "EV_TRANSPORT";
    return code < kEventNames.size() ? kEventNames[code] : "EV_UNKNOWN";
}

Error errorReply(std::uint8_t command, std::uint8_t code) {
    return {.code = errorCodeCategory(code),
            .message = fmt::format("{}: {} (0x{:02X})", commandName(command), errorCodeName(code), code),
            .detail = code};
}

Error shortResponse(std::string_view command) {
    return {.code = ErrorCode::protocolError,
            .message = fmt::format("XCP response to {} too short", command)};
}

ByteOrder byteOrderOf(std::uint8_t commModeBasic) {
    return (commModeBasic & 0x01U) != 0 ? ByteOrder::bigEndian : ByteOrder::littleEndian;
}

std::uint8_t granularityOf(std::uint8_t commModeBasic) {
    switch ((commModeBasic >> 1U) & 0x03U) {
        case 1:
            return 2;
        case 2:
            return 4;
        default:
            return 1;
    }
}

Result<ConnectInfo> parseConnect(std::span<const std::uint8_t> response) {
    if (response.size() < 8) return shortResponse("CONNECT");
    ConnectInfo info;
    info.resource = response[1];
    info.commModeBasic = response[2];
    info.maxCto = response[3];
    info.maxDto = readBytes<std::uint16_t>(response.data() + 4, info.byteOrder());
    info.protocolLayerVersion = response[6];
    info.transportLayerVersion = response[7];
    if ((info.commModeBasic & 0x06U) == 0x06U) {
        return Error{.code = ErrorCode::protocolError, .message = "CONNECT: reserved address granularity"};
    }
    const unsigned misaligned = (info.maxCto | info.maxDto) & (info.granularity() - 1U);
    if (info.maxCto < 8 || info.maxDto < 8 || misaligned != 0) {
        return Error{.code = ErrorCode::protocolError, .message = "CONNECT: invalid MAX_CTO/MAX_DTO"};
    }
    return info;
}

Result<SlaveStatus> parseStatus(std::span<const std::uint8_t> response, ByteOrder order) {
    if (response.size() < 6) return shortResponse("GET_STATUS");
    return SlaveStatus{.sessionStatus = response[1],
                       .protectionStatus = response[2],
                       .sessionConfigurationId = readBytes<std::uint16_t>(response.data() + 4, order)};
}

Result<CommModeInfo> parseCommModeInfo(std::span<const std::uint8_t> response) {
    if (response.size() < 8) return shortResponse("GET_COMM_MODE_INFO");
    return CommModeInfo{.commModeOptional = response[2],
                        .maxBs = response[4],
                        .minSt = response[5],
                        .queueSize = response[6],
                        .driverVersion = response[7]};
}

Packet buildPlain(Command command) {
    return makePacket(command, 1);
}

Packet buildConnect(std::uint8_t mode) {
    Packet packet = makePacket(Command::connect, 2);
    packet.bytes[1] = mode;
    return packet;
}

Packet buildGetSeed(bool first, Resource resource) {
    Packet packet = makePacket(Command::getSeed, 3);
    packet.bytes[1] = first ? 0 : 1;
    packet.bytes[2] = static_cast<std::uint8_t>(resource);
    return packet;
}

Packet buildUnlock(std::size_t left, std::span<const std::uint8_t> part) {
    assert(left <= UINT8_MAX && part.size() + 2 <= Packet::kCapacity);
    Packet packet = makePacket(Command::unlock, static_cast<std::uint8_t>(2 + part.size()));
    packet.bytes[1] = static_cast<std::uint8_t>(left);
    std::copy(part.begin(), part.end(), packet.bytes.begin() + 2);
    return packet;
}

Packet buildSetMta(Address address, ByteOrder order) {
    Packet packet = makePacket(Command::setMta, 8);
    putAddress(packet, address, order);
    return packet;
}

Packet buildUpload(std::uint8_t elements) {
    Packet packet = makePacket(Command::upload, 2);
    packet.bytes[1] = elements;
    return packet;
}

Packet buildShortUpload(std::uint8_t elements, Address address, ByteOrder order) {
    Packet packet = makePacket(Command::shortUpload, 8);
    packet.bytes[1] = elements;
    putAddress(packet, address, order);
    return packet;
}

Result<Packet> buildDownload(std::span<const std::uint8_t> data, std::uint8_t granularity,
                             std::uint16_t maxCto) {
    assert(granularity == 1 || granularity == 2 || granularity == 4);
    if (data.empty() || data.size() % granularity != 0) {
        return Error{.code = ErrorCode::invalidArgument,
                     .message = "DOWNLOAD data size must be a non-zero multiple of AG"};
    }
    const std::size_t header = granularity == 4 ? 4 : 2;
    if (maxCto > Packet::kCapacity || header + data.size() > maxCto) {
        return Error{.code = ErrorCode::invalidArgument,
                     .message = "DOWNLOAD data does not fit into MAX_CTO"};
    }
    Packet packet = makePacket(Command::download, static_cast<std::uint8_t>(header + data.size()));
    packet.bytes[1] = static_cast<std::uint8_t>(data.size() / granularity);
    std::copy(data.begin(), data.end(), packet.bytes.begin() + static_cast<std::ptrdiff_t>(header));
    return packet;
}

Packet buildModifyBits(std::uint8_t shift, std::uint16_t andMask, std::uint16_t xorMask, ByteOrder order) {
    Packet packet = makePacket(Command::modifyBits, 6);
    packet.bytes[1] = shift;
    writeBytes(&packet.bytes[2], andMask, order);
    writeBytes(&packet.bytes[4], xorMask, order);
    return packet;
}

Packet buildGetDaqListInfo(std::uint16_t list, ByteOrder order) {
    Packet packet = makePacket(Command::getDaqListInfo, 4);
    put(packet, 2, list, order);
    return packet;
}

Packet buildGetDaqId(std::uint16_t list, ByteOrder order) {
    Packet packet = makePacket(Command::transportLayer, 4);
    packet.bytes[1] = 0xFE;
    put(packet, 2, list, order);
    return packet;
}

Packet buildSetDaqId(std::uint16_t list, std::uint32_t id, ByteOrder order) {
    Packet packet = makePacket(Command::transportLayer, 8);
    packet.bytes[1] = 0xFD;
    put(packet, 2, list, order);
    put(packet, 4, id, order);
    return packet;
}

Packet buildGetDaqEventInfo(std::uint16_t channel, ByteOrder order) {
    Packet packet = makePacket(Command::getDaqEventInfo, 4);
    put(packet, 2, channel, order);
    return packet;
}

Packet buildAllocDaq(std::uint16_t count, ByteOrder order) {
    Packet packet = makePacket(Command::allocDaq, 4);
    put(packet, 2, count, order);
    return packet;
}

Packet buildAllocOdt(std::uint16_t list, std::uint8_t count, ByteOrder order) {
    Packet packet = makePacket(Command::allocOdt, 5);
    put(packet, 2, list, order);
    packet.bytes[4] = count;
    return packet;
}

Packet buildAllocOdtEntry(std::uint16_t list, std::uint8_t odt, std::uint8_t count, ByteOrder order) {
    Packet packet = makePacket(Command::allocOdtEntry, 6);
    put(packet, 2, list, order);
    packet.bytes[4] = odt;
    packet.bytes[5] = count;
    return packet;
}

Packet buildClearDaqList(std::uint16_t list, ByteOrder order) {
    Packet packet = makePacket(Command::clearDaqList, 4);
    put(packet, 2, list, order);
    return packet;
}

Packet buildSetDaqPtr(std::uint16_t list, std::uint8_t odt, std::uint8_t entry, ByteOrder order) {
    Packet packet = makePacket(Command::setDaqPtr, 6);
    put(packet, 2, list, order);
    packet.bytes[4] = odt;
    packet.bytes[5] = entry;
    return packet;
}

Packet buildWriteDaq(std::uint8_t elements, Address address, ByteOrder order) {
    Packet packet = makePacket(Command::writeDaq, 8);
    packet.bytes[1] = 0xFF;
    packet.bytes[2] = elements;
    putAddress(packet, address, order);
    return packet;
}

std::size_t mostDaqElements(std::uint16_t maxCto) {
    const std::size_t limit = std::min<std::size_t>(maxCto, Packet::kCapacity);
    return limit < kMultipleHead ? 0 : (limit - kMultipleHead) / kDaqElementSize;
}

Packet buildWriteDaqMultiple(std::span<const DaqElement> elements, ByteOrder order) {
    const auto length = static_cast<std::uint8_t>(kMultipleHead + elements.size() * kDaqElementSize);
    Packet packet = makePacket(Command::writeDaqMultiple, length);
    packet.bytes[1] = static_cast<std::uint8_t>(elements.size());
    std::size_t at = kMultipleHead;
    for (const DaqElement& element : elements) {
        packet.bytes[at] = 0xFF;
        packet.bytes[at + 1] = element.elements;
        put(packet, at + 2, element.address.address, order);
        packet.bytes[at + 6] = element.address.extension;
        at += kDaqElementSize;
    }
    return packet;
}

Packet buildSetDaqListMode(std::uint8_t mode, std::uint16_t list, std::uint16_t event, std::uint8_t prescaler,
                           ByteOrder order) {
    Packet packet = makePacket(Command::setDaqListMode, 8);
    packet.bytes[1] = mode;
    put(packet, 2, list, order);
    put(packet, 4, event, order);
    packet.bytes[6] = prescaler;
    return packet;
}

Packet buildStartStopDaqList(std::uint8_t mode, std::uint16_t list, ByteOrder order) {
    Packet packet = makePacket(Command::startStopDaqList, 4);
    packet.bytes[1] = mode;
    put(packet, 2, list, order);
    return packet;
}

Packet buildStartStopSynch(std::uint8_t mode) {
    Packet packet = makePacket(Command::startStopSynch, 2);
    packet.bytes[1] = mode;
    return packet;
}

}  // namespace lm::xcp
