// The XCP codes that the simulated slave knows, with the standard's names.
//
// Threads: constants and pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace lm::sim {

enum Command : std::uint8_t {
    kConnect = 0xFF,
    kDisconnect = 0xFE,
    kGetStatus = 0xFD,
    kSynch = 0xFC,
    kGetCommModeInfo = 0xFB,
    kGetId = 0xFA,
    kSetRequest = 0xF9,
    kGetSeed = 0xF8,
    kUnlock = 0xF7,
    kSetMta = 0xF6,
    kUpload = 0xF5,
    kShortUpload = 0xF4,
    kBuildChecksum = 0xF3,
    kTransportLayerCmd = 0xF2,
    kDownload = 0xF0,
    kDownloadNext = 0xEF,
    kModifyBits = 0xEC,
    kSetCalPage = 0xEB,
    kGetCalPage = 0xEA,
    kGetPagProcessorInfo = 0xE9,
    kGetSegmentInfo = 0xE8,
    kGetPageInfo = 0xE7,
    kSetSegmentMode = 0xE6,
    kGetSegmentMode = 0xE5,
    kCopyCalPage = 0xE4,
    kClearDaqList = 0xE3,
    kSetDaqPtr = 0xE2,
    kWriteDaq = 0xE1,
    kSetDaqListMode = 0xE0,
    kGetDaqListMode = 0xDF,
    kStartStopDaqList = 0xDE,
    kStartStopSynch = 0xDD,
    kGetDaqClock = 0xDC,
    kReadDaq = 0xDB,
    kGetDaqProcessorInfo = 0xDA,
    kGetDaqResolutionInfo = 0xD9,
    kGetDaqListInfo = 0xD8,
    kGetDaqEventInfo = 0xD7,
    kFreeDaq = 0xD6,
    kAllocDaq = 0xD5,
    kAllocOdt = 0xD4,
    kAllocOdtEntry = 0xD3,
    kWriteDaqMultiple = 0xC7,
};

/// Groups of commands, as CONNECT, GET_STATUS and GET_SEED name them.
enum Resource : std::uint8_t { kCalibration = 0x01, kDaq = 0x04, kStim = 0x08, kPgm = 0x10 };

/// Of TRANSPORT_LAYER_CMD on CAN.
enum CanSubcommand : std::uint8_t { kGetDaqId = 0xFE, kSetDaqId = 0xFD };

enum PacketId : std::uint8_t { kResponse = 0xFF, kErrorPacket = 0xFE, kEventPacket = 0xFD };

enum EventCode : std::uint8_t { kEvCmdPending = 0x05, kEvDaqOverload = 0x06, kEvSessionTerminated = 0x07 };

enum class Err : std::uint8_t {
    cmdSynch = 0x00,
    cmdBusy = 0x10,
    daqActive = 0x11,
    cmdUnknown = 0x20,
    cmdSyntax = 0x21,
    outOfRange = 0x22,
    writeProtected = 0x23,
    accessLocked = 0x25,
    pageNotValid = 0x26,
    modeNotValid = 0x27,
    segmentNotValid = 0x28,
    sequence = 0x29,
    daqConfig = 0x2A,
    memoryOverflow = 0x30,
};

/// What makes the slave know a command.
enum class Presence : std::uint8_t {
    mandatory,  ///< always there, and in no OPTIONAL_CMD list of an A2L file
    usual,      ///< there unless --without takes it away
    withLock,   ///< there when a resource is locked
    withStaticLists,
    withDynamicLists,
    onRequest,     ///< there with --offer
    withIdentity,  ///< there when the ECU has an EPK or pages
    withMasterBlocks,
    withPages,       ///< there when its parameters have pages
    withListCanIds,  ///< there on CAN, when lists have identifiers of their own
};

struct CommandInfo {
    Command code;
    std::string_view name;
    std::uint8_t length;  ///< shortest packet of the command
    Presence presence;
};

inline constexpr CommandInfo kCommands[] = {
    {kConnect, "CONNECT", 2, Presence::mandatory},
    {kDisconnect, "DISCONNECT", 1, Presence::mandatory},
    {kGetStatus, "GET_STATUS", 1, Presence::mandatory},
    {kSynch, "SYNCH", 1, Presence::mandatory},
    {kGetCommModeInfo, "GET_COMM_MODE_INFO", 1, Presence::usual},
    {kGetId, "GET_ID", 2, Presence::withIdentity},
    {kSetRequest, "SET_REQUEST", 4, Presence::withPages},
    {kGetSeed, "GET_SEED", 3, Presence::withLock},
    {kUnlock, "UNLOCK", 2, Presence::withLock},
    {kSetMta, "SET_MTA", 8, Presence::usual},
    {kUpload, "UPLOAD", 2, Presence::usual},
    {kShortUpload, "SHORT_UPLOAD", 8, Presence::usual},
    {kBuildChecksum, "BUILD_CHECKSUM", 8, Presence::withPages},
    {kTransportLayerCmd, "TRANSPORT_LAYER_CMD", 2, Presence::withListCanIds},
    {kDownload, "DOWNLOAD", 3, Presence::usual},
    {kDownloadNext, "DOWNLOAD_NEXT", 3, Presence::withMasterBlocks},
    {kModifyBits, "MODIFY_BITS", 6, Presence::onRequest},
    {kSetCalPage, "SET_CAL_PAGE", 4, Presence::withPages},
    {kGetCalPage, "GET_CAL_PAGE", 3, Presence::withPages},
    {kGetPagProcessorInfo, "GET_PAG_PROCESSOR_INFO", 1, Presence::withPages},
    {kGetSegmentInfo, "GET_SEGMENT_INFO", 5, Presence::withPages},
    {kGetPageInfo, "GET_PAGE_INFO", 4, Presence::withPages},
    {kSetSegmentMode, "SET_SEGMENT_MODE", 3, Presence::withPages},
    {kGetSegmentMode, "GET_SEGMENT_MODE", 3, Presence::withPages},
    {kCopyCalPage, "COPY_CAL_PAGE", 5, Presence::withPages},
    {kClearDaqList, "CLEAR_DAQ_LIST", 4, Presence::withStaticLists},
    {kSetDaqPtr, "SET_DAQ_PTR", 6, Presence::usual},
    {kWriteDaq, "WRITE_DAQ", 8, Presence::usual},
    {kSetDaqListMode, "SET_DAQ_LIST_MODE", 8, Presence::usual},
    {kGetDaqListMode, "GET_DAQ_LIST_MODE", 4, Presence::withStaticLists},
    {kStartStopDaqList, "START_STOP_DAQ_LIST", 4, Presence::usual},
    {kStartStopSynch, "START_STOP_SYNCH", 2, Presence::usual},
    {kGetDaqClock, "GET_DAQ_CLOCK", 1, Presence::usual},
    {kReadDaq, "READ_DAQ", 1, Presence::withStaticLists},
    {kGetDaqProcessorInfo, "GET_DAQ_PROCESSOR_INFO", 1, Presence::usual},
    {kGetDaqResolutionInfo, "GET_DAQ_RESOLUTION_INFO", 1, Presence::usual},
    {kGetDaqListInfo, "GET_DAQ_LIST_INFO", 4, Presence::withStaticLists},
    {kGetDaqEventInfo, "GET_DAQ_EVENT_INFO", 4, Presence::usual},
    {kFreeDaq, "FREE_DAQ", 1, Presence::withDynamicLists},
    {kAllocDaq, "ALLOC_DAQ", 4, Presence::withDynamicLists},
    {kAllocOdt, "ALLOC_ODT", 5, Presence::withDynamicLists},
    {kAllocOdtEntry, "ALLOC_ODT_ENTRY", 6, Presence::withDynamicLists},
    {kWriteDaqMultiple, "WRITE_DAQ_MULTIPLE", 2, Presence::onRequest},
};

constexpr const CommandInfo* findCommand(std::uint8_t code) {
    for (const CommandInfo& info : kCommands) {
        if (info.code == code) return &info;
    }
    return nullptr;
}

constexpr std::optional<std::uint8_t> commandCode(std::string_view name) {
    for (const CommandInfo& info : kCommands) {
        if (info.name == name) return info.code;
    }
    return std::nullopt;
}

/// Those about pages, identification and checksums.
constexpr bool isPageCommand(std::uint8_t code) {
    return (code <= kSetCalPage && code >= kCopyCalPage) || code == kGetId || code == kSetRequest ||
           code == kBuildChecksum;
}

/// Those that only a slave with DAQ lists has.
constexpr bool isDaqCommand(std::uint8_t code) {
    return (code <= kClearDaqList && code >= kAllocOdtEntry) || code == kWriteDaqMultiple ||
           code == kTransportLayerCmd;
}

}  // namespace lm::sim
