// What the simulated ECU is told at its start: the shape of its XCP slave and its misbehaviour.
//
// Threads: a plain record, constant once the ECU is built.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "sim/static_list.h"

namespace lm::sim {

inline constexpr std::int64_t kNsPerMs = 1'000'000;

/// Who gives all lists one FIRST_PID: no one, the answer that tells it, or the DTOs too.
enum class SameFirstPid : std::uint8_t { no, told, sent };

/// How lost samples are told to the master (fault "overload").
enum class OverloadIndication : std::uint8_t { none, topBit, event };

/// Seed & key, and what is odd about it.
struct LockOptions {
    std::uint8_t resources = 0;   ///< locked after every CONNECT: bits of Resource
    std::uint8_t seedBytes = 4;   ///< 1 to 255
    std::uint8_t keyBytes = 0;    ///< 0: as many as the seed has
    bool grantsOnce = false;      ///< a grant serves one command
    bool locksReads = false;      ///< UPLOAD and SHORT_UPLOAD belong to CAL/PAG
    bool locksQueries = false;    ///< what asks about DAQ, and its clock, belongs to DAQ
    bool statusIsSilent = false;  ///< GET_STATUS and UNLOCK tell that nothing is locked
};

/// What CONNECT, GET_STATUS and the queries about DAQ tell though it is not so.
struct Tales {
    std::optional<std::uint8_t> granularity = {};
    std::optional<ByteOrder> order = {};
    std::optional<std::uint8_t> maxCto = {};
    std::optional<std::uint16_t> maxDto = {};
    std::optional<std::uint8_t> timestampSize = {};
    std::optional<std::uint8_t> tickExponent = {};
    std::optional<bool> running{};  ///< some DAQ list runs
};

/// Block transfer.
struct BlockOptions {
    bool answers = false;    ///< UPLOADs of more than one packet are answered with several
    std::uint8_t maxBs = 0;  ///< most packets of a DOWNLOAD with its DOWNLOAD_NEXTs; 0: there are none
    std::uint8_t pause = 0;  ///< MIN_ST: one that comes sooner than 100 us times that is not heard
};

/// The software's name, and the pages of the parameters.
struct PageOptions {
    std::string epk = {};              ///< empty: none
    std::uint8_t pages = 0;            ///< of each segment; 0: no segments
    std::uint8_t checksumType = 0x09;  ///< of BUILD_CHECKSUM
    std::uint32_t checksumBlock = 0;   ///< most bytes of one, 0: any number
    bool freeze = true;                ///< pages can be stored
    // What goes wrong.
    bool wrongEpk = false;       ///< memory holds another one than the A2L file tells
    bool unreadableEpk = false;  ///< and none at all
    bool apart = false;          ///< XCP is on page 0 at first, the ECU is not
    bool stuck = false;          ///< SET_CAL_PAGE is answered and does nothing
    bool switched = false;       ///< the first DOWNLOAD finds both sides on page 0
};

/// Whether bit 31 and the others make an identifier.
constexpr bool isCanId(std::uint32_t id) {
    return id <= ((id & 0x80000000) != 0 ? 0x9FFFFFFF : 0x7FF);
}

struct Options {
    // The slave.
    ByteOrder order = ByteOrder::littleEndian;
    std::uint8_t granularity = 1;     ///< bytes of one addressable element: 1, 2 or 4
    std::uint8_t maxCto = 248;        ///< 8 to 255, a multiple of the granularity
    std::uint16_t maxDto = 1400;      ///< 8 to 65535, a multiple of the granularity
    std::uint8_t identification = 1;  ///< identification field type 0 to 3
    std::uint8_t timestampSize = 4;   ///< bytes: 0 (none), 1, 2 or 4
    std::int8_t tickUnit = -1;        ///< tick length 10^unit ns, 0 to 9; -1: 1 us, 100 us, 1 ms by size
    bool timestampFixed = false;      ///< every list carries a timestamp
    std::uint64_t clockStart = 0;     ///< ticks that the clock shows at the start
    std::int32_t clockPpm = 0;        ///< how much faster than the host's clock it runs, in millionths
    double clockWander = 0;           ///< seconds after which `clockPpm` changes its sign, 0: never
    bool daq = true;                  ///< offers the DAQ resource
    std::vector<StaticList> staticLists = {};  ///< the lists that there are; empty: dynamic ones
    bool prescaler = true;                     ///< takes prescalers other than 1
    std::uint8_t minDaq = 0;                   ///< number of the first dynamic list
    std::uint8_t firstPid = 0;                 ///< with identification type 0: PID of the first ODT
    std::uint32_t daqEntries = 20000;          ///< DAQ memory: ODT entries in all lists together
    OverloadIndication overload = OverloadIndication::event;
    bool pidOff = false;  ///< leaves out the identification field on request, with type 0 on CAN
    SameFirstPid sameFirstPid = SameFirstPid::no;  ///< with identification type 0
    bool selectStopped = false;                    ///< refuses to select a list that runs
    bool synchClears = false;             ///< SYNCH sets memory and DAQ pointer back to their first places
    std::set<std::uint8_t> without = {};  ///< command codes answered with ERR_CMD_UNKNOWN
    std::set<std::uint8_t> offer = {};    ///< codes of commands that are there on request alone
    LockOptions lock = {};
    PageOptions paging = {};
    BlockOptions blocks = {};
    Tales tells = {};

    // The world.
    std::uint32_t fastEventUs = 1000;  ///< cycle of event 0 in microseconds
    std::uint32_t loadSignals = 0;     ///< further measurements load_0000 ... on event 0
    std::uint8_t loadBytes = 4;        ///< their size: 4 (ULONG) or 8 (A_UINT64)
    std::uint32_t spareBytes = 0;      ///< writable memory that nothing uses, full of random bytes

    // Misbehaviour.
    std::vector<std::string> faults = {};  ///< rules of FaultPlan, as typed
    std::uint16_t pack = 1;                ///< DTOs put into one datagram
    std::uint16_t pad = 0;                 ///< zero bytes behind every DTO, within MAX_DTO

    // The serial line.
    bool serial = false;              ///< instead of UDP
    std::string serialDevice = {};    ///< empty: a pseudo-terminal
    std::string serialLink = {};      ///< symbolic link to the pseudo-terminal, empty: none
    std::uint32_t baudrate = 115200;  ///< told in the A2L, set on a device
    std::uint32_t chatterMs = 1000;   ///< between two lines of diagnostics, 0: none
    std::int32_t bootMs = -1;  ///< opening the line resets the ECU, which boots so long; -1: it does not

    // CAN.
    std::string can = {};                     ///< interface, instead of UDP; empty: none
    std::uint32_t canCmdId = 0x7E0;           ///< of commands; bit 31 marks 29-bit identifiers here and below
    std::uint32_t canResId = 0x7E1;           ///< of answers and DTOs
    std::optional<std::uint32_t> canDaqId{};  ///< of DTOs, if of their own
    std::vector<std::uint32_t> canListIds{};  ///< of the DTOs of list 0, 1, ...: of their own
    bool canListIdsVariable = false;          ///< SET_DAQ_ID changes them
    bool canFd = false;                       ///< CAN FD frames with bit-rate switch
    bool maxDlcRequired = false;              ///< all frames, heard and sent, have the full length
    std::uint8_t fillByte = 0;                ///< of frames longer than their packet
    std::uint32_t frameUs = 0;                ///< least time from one frame to the next in microseconds

    // The program.
    std::uint16_t port = 5555;       ///< UDP port, 0: the system chooses
    bool anyMaster = false;          ///< obeys whoever sends, not only who sent CONNECT last
    double quitAfter = 0;            ///< seconds, 0: never
    std::uint16_t a2lVersion = 171;  ///< of the A2L file: 161 or 171
    std::string memoryFile = {};     ///< memory image, written at every change and at the end

    /// Exponent of the tick length in nanoseconds.
    unsigned tickExponent() const {
        if (tickUnit >= 0) return static_cast<unsigned>(tickUnit);
        return timestampSize == 4 ? 3U : timestampSize == 2 ? 5U : 6U;
    }
    bool isStatic() const { return !staticLists.empty(); }
    /// MIN_DAQ: how many numbers come before the first list that can be configured.
    std::uint8_t reservedLists() const {
        std::uint8_t predefined = 0;
        for (const StaticList& list : staticLists)
            predefined = static_cast<std::uint8_t>(predefined + (list.predefined.empty() ? 0 : 1));
        return isStatic() ? predefined : minDaq;
    }
    /// The CAN identifier of DTOs that have none of their list.
    std::uint32_t canDtoId() const { return canDaqId.value_or(canResId); }
    /// Largest payload of a CAN frame.
    std::uint8_t maxDlc() const { return canFd ? 64 : 8; }
    /// Largest ODT entry in bytes.
    std::size_t maxOdtEntrySize() const {
        const std::size_t room = maxDto - identificationSize();
        return (room < 248 ? room : 248) / granularity * granularity;
    }
    /// Bytes of the identification field at the head of every DTO.
    std::size_t identificationSize() const { return identification == 0 ? 1U : identification + 1U; }
};

}  // namespace lm::sim
