// The bytes of XCP: command codes and names, error and event codes and names, builders of the command packets
// the master sends, and parsers of the responses with a fixed layout.
//
// Threads: pure functions over plain values. Lifetime: packets own their bytes; names are static texts.
// Builders and parsers of fields wider than one byte take the slave's byte order, learned from CONNECT.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "core/bytes.h"
#include "core/ecu_address.h"
#include "core/result.h"

namespace lm::xcp {

/// The shortest responses to CONNECT and GET_STATUS, in bytes.
inline constexpr std::size_t kConnectLength = 8;
inline constexpr std::size_t kStatusLength = 6;

/// First byte of a command packet; only the commands this master sends.
enum class Command : std::uint8_t {
    connect = 0xFF,
    disconnect = 0xFE,
    getStatus = 0xFD,
    synch = 0xFC,
    getCommModeInfo = 0xFB,
    getId = 0xFA,
    setRequest = 0xF9,
    getSeed = 0xF8,
    unlock = 0xF7,
    setMta = 0xF6,
    upload = 0xF5,
    shortUpload = 0xF4,
    buildChecksum = 0xF3,
    transportLayer = 0xF2,
    download = 0xF0,
    downloadNext = 0xEF,
    modifyBits = 0xEC,
    setCalPage = 0xEB,
    getCalPage = 0xEA,
    getPagProcessorInfo = 0xE9,
    getSegmentInfo = 0xE8,
    getPageInfo = 0xE7,
    setSegmentMode = 0xE6,
    getSegmentMode = 0xE5,
    copyCalPage = 0xE4,
    clearDaqList = 0xE3,
    setDaqPtr = 0xE2,
    writeDaq = 0xE1,
    readDaq = 0xDB,
    setDaqListMode = 0xE0,
    startStopDaqList = 0xDE,
    startStopSynch = 0xDD,
    getDaqClock = 0xDC,
    getDaqProcessorInfo = 0xDA,
    getDaqResolutionInfo = 0xD9,
    getDaqListInfo = 0xD8,
    getDaqEventInfo = 0xD7,
    freeDaq = 0xD6,
    allocDaq = 0xD5,
    allocOdt = 0xD4,
    allocOdtEntry = 0xD3,
    writeDaqMultiple = 0xC7,
};

/// First byte of a packet from the slave; everything below kPidService is a DTO.
inline constexpr std::uint8_t kPidResponse = 0xFF;
inline constexpr std::uint8_t kPidError = 0xFE;
inline constexpr std::uint8_t kPidEvent = 0xFD;
inline constexpr std::uint8_t kPidService = 0xFC;

/// Error codes that the master acts upon.
inline constexpr std::uint8_t kErrCmdSynch = 0x00;
inline constexpr std::uint8_t kErrCmdUnknown = 0x20;
inline constexpr std::uint8_t kErrOutOfRange = 0x22;
inline constexpr std::uint8_t kErrWriteProtected = 0x23;
inline constexpr std::uint8_t kErrAccessDenied = 0x24;
inline constexpr std::uint8_t kErrAccessLocked = 0x25;
inline constexpr std::uint8_t kErrSequence = 0x29;
inline constexpr std::uint8_t kErrGeneric = 0x31;

/// Event codes that the master acts upon.
inline constexpr std::uint8_t kEvCmdPending = 0x05;
inline constexpr std::uint8_t kEvDaqOverload = 0x06;
inline constexpr std::uint8_t kEvSessionTerminated = 0x07;
inline constexpr std::uint8_t kEvUser = 0xFE;

/// RESOURCE bit of CONNECT: the slave offers DAQ lists.
inline constexpr std::uint8_t kResourceDaq = 0x04;
/// Session status bit of GET_STATUS: at least one DAQ list runs.
inline constexpr std::uint8_t kStatusDaqRunning = 0x40;
/// Likewise: pages are being stored.
inline constexpr std::uint8_t kStatusStoringPages = 0x01;

/// What seed & key can protect; the bits of RESOURCE and of the protection status.
enum class Resource : std::uint8_t { calPag = 0x01, daq = 0x04, stim = 0x08, pgm = 0x10 };
inline constexpr std::array kResources = {Resource::calPag, Resource::daq, Resource::stim, Resource::pgm};

/// "CAL/PAG", "DAQ", "STIM", "PGM".
std::string_view resourceName(Resource resource);

/// What a command that the slave refused as locked belongs to; nothing for those that are never locked.
std::optional<Resource> protectedBy(std::uint8_t command);

/// Names of the XCP standard; "UNKNOWN_CMD", "ERR_UNKNOWN_CODE" and "EV_UNKNOWN" for what it does not know.
std::string_view commandName(std::uint8_t code);
std::string_view errorCodeName(std::uint8_t code);
std::string_view eventName(std::uint8_t code);

/// The category of an ERR packet's code.
ErrorCode errorCodeCategory(std::uint8_t code);

/// The error of an ERR reply: "COMMAND: ERR_NAME (0xNN)", its category, and the code as `detail`.
Error errorReply(std::uint8_t command, std::uint8_t code);

/// protocolError with "XCP response to COMMAND too short".
Error shortResponse(std::string_view command);

/// A packet of at most 255 bytes: a command to send or a response received. Bytes behind `length` are 0.
struct Packet {
    static constexpr std::size_t kCapacity = 255;

    std::array<std::uint8_t, kCapacity> bytes = {};
    std::uint8_t length = 0;

    std::uint8_t code() const { return bytes[0]; }
    const std::uint8_t* data() const { return bytes.data(); }
    std::size_t size() const { return length; }
    std::span<const std::uint8_t> view() const { return {bytes.data(), length}; }
};

/// Bit 0 of COMM_MODE_BASIC.
ByteOrder byteOrderOf(std::uint8_t commModeBasic);
/// Bits 1..2 of COMM_MODE_BASIC as bytes per element: 1, 2 or 4; the reserved code gives 1.
std::uint8_t granularityOf(std::uint8_t commModeBasic);

/// What the slave said at CONNECT.
struct ConnectInfo {
    std::uint8_t resource = 0;
    std::uint8_t commModeBasic = 0;
    std::uint16_t maxCto = 0;
    std::uint16_t maxDto = 0;
    std::uint8_t protocolLayerVersion = 0;
    std::uint8_t transportLayerVersion = 0;

    ByteOrder byteOrder() const { return byteOrderOf(commModeBasic); }
    std::uint8_t granularity() const { return granularityOf(commModeBasic); }
    bool sendsBlocks() const { return (commModeBasic & 0x40U) != 0; }  ///< several packets to one UPLOAD
    bool hasCommModeInfo() const { return (commModeBasic & 0x80U) != 0; }
    bool offersDaq() const { return (resource & kResourceDaq) != 0; }
};

struct SlaveStatus {
    std::uint8_t sessionStatus = 0;
    std::uint8_t protectionStatus = 0;
    std::uint16_t sessionConfigurationId = 0;

    bool isLocked(Resource resource) const {
        return (protectionStatus & static_cast<std::uint8_t>(resource)) != 0;
    }
    bool storingPages() const { return (sessionStatus & kStatusStoringPages) != 0; }
    bool daqRunning() const { return (sessionStatus & kStatusDaqRunning) != 0; }
};

struct CommModeInfo {
    std::uint8_t commModeOptional = 0;
    std::uint8_t maxBs = 0;
    std::uint8_t minSt = 0;
    std::uint8_t queueSize = 0;
    std::uint8_t driverVersion = 0;
};

/// Parsers of whole positive responses. Errors: protocolError with shortResponse(), and for CONNECT
/// "CONNECT: reserved address granularity" and "CONNECT: invalid MAX_CTO/MAX_DTO".
Result<ConnectInfo> parseConnect(std::span<const std::uint8_t> response);
Result<SlaveStatus> parseStatus(std::span<const std::uint8_t> response, ByteOrder order);
Result<CommModeInfo> parseCommModeInfo(std::span<const std::uint8_t> response);

/// A command that consists of its code alone.
Packet buildPlain(Command command);
Packet buildConnect(std::uint8_t mode);
/// `resource` has one bit; of a seed's first part or a later one.
Packet buildGetSeed(bool first, Resource resource);
/// A part of a key of which, with this part, `left` bytes are still to come.
Packet buildUnlock(std::size_t left, std::span<const std::uint8_t> part);
Packet buildSetMta(Address address, ByteOrder order);
Packet buildUpload(std::uint8_t elements);
Packet buildShortUpload(std::uint8_t elements, Address address, ByteOrder order);
/// `data` behind a header of 2 bytes (4 with granularity 4). Errors (invalidArgument): "DOWNLOAD data size
/// must be a non-zero multiple of AG", "DOWNLOAD data does not fit into MAX_CTO" (also for any MAX_CTO above
/// 255).
Result<Packet> buildDownload(std::span<const std::uint8_t> data, std::uint8_t granularity,
                             std::uint16_t maxCto);
/// The word of 32 bits at the MTA becomes (it & ~(~andMask << shift)) ^ (xorMask << shift).
Packet buildModifyBits(std::uint8_t shift, std::uint16_t andMask, std::uint16_t xorMask, ByteOrder order);
Packet buildGetDaqListInfo(std::uint16_t list, ByteOrder order);
/// Commands of the transport layer CAN; the identifier in A2L notation.
Packet buildGetDaqId(std::uint16_t list, ByteOrder order);
Packet buildSetDaqId(std::uint16_t list, std::uint32_t id, ByteOrder order);
Packet buildGetDaqEventInfo(std::uint16_t channel, ByteOrder order);
Packet buildAllocDaq(std::uint16_t count, ByteOrder order);
Packet buildAllocOdt(std::uint16_t list, std::uint8_t count, ByteOrder order);
Packet buildAllocOdtEntry(std::uint16_t list, std::uint8_t odt, std::uint8_t count, ByteOrder order);
Packet buildClearDaqList(std::uint16_t list, ByteOrder order);
Packet buildSetDaqPtr(std::uint16_t list, std::uint8_t odt, std::uint8_t entry, ByteOrder order);
/// One whole element (bit offset 0xFF) of `elements` address elements.
Packet buildWriteDaq(std::uint8_t elements, Address address, ByteOrder order);
/// One whole element of a place in memory, as of WRITE_DAQ.
struct DaqElement {
    Address address = {};
    std::uint8_t elements = 0;  ///< address elements
};
/// How many of them a WRITE_DAQ_MULTIPLE holds.
std::size_t mostDaqElements(std::uint16_t maxCto);
/// At most mostDaqElements() of them.
Packet buildWriteDaqMultiple(std::span<const DaqElement> elements, ByteOrder order);
Packet buildSetDaqListMode(std::uint8_t mode, std::uint16_t list, std::uint16_t event, std::uint8_t prescaler,
                           ByteOrder order);
Packet buildStartStopDaqList(std::uint8_t mode, std::uint16_t list, ByteOrder order);
Packet buildStartStopSynch(std::uint8_t mode);

}  // namespace lm::xcp
