// What the module's IF_DATA XCP block says about reaching the ECU: protocol layer, DAQ events, media.
//
// Threads: a plain record, immutable once the description is loaded. Lifetime: owns its texts.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/ecu_address.h"
#include "core/time_unit.h"

namespace lm::a2l {

/// PROTOCOL_LAYER.
struct XcpProtocolLayer {
    double version = 0;
    std::array<std::uint16_t, 7> timeoutsMs{};  ///< T1 to T7; 0 counts as absent
    std::uint8_t maxCto = 0;
    std::uint16_t maxDto = 0;
    std::optional<ByteOrder> byteOrder;
    std::optional<std::uint8_t> addressGranularity;       ///< 1, 2 or 4
    std::vector<std::string> optionalCommands;            ///< OPTIONAL_CMD names in file order
    std::pair<std::uint8_t, std::uint8_t> writeBlocks{};  ///< MAX_BS and MIN_ST of master block mode
    std::string keyLibrary;                               ///< SEED_AND_KEY_EXTERNAL_FUNCTION; never loaded
};

/// One EVENT of the DAQ block.
struct XcpEvent {
    std::string name;
    std::string shortName;
    std::uint16_t channel = 0;
    std::string direction;  ///< DAQ, STIM or DAQ_STIM
    std::uint8_t maxDaqList = 0;
    std::uint8_t timeCycle = 0;
    std::uint8_t timeUnit = 0;  ///< power of ten in nanoseconds
    std::uint8_t priority = 0;
    std::string consistency;  ///< DAQ, EVENT, ODT or NONE; empty: not told

    /// 0: not cyclic
    std::int64_t cycleNs() const { return unitNs(timeCycle, timeUnit); }
};

/// TIMESTAMP_SUPPORTED.
struct XcpTimestamp {
    std::uint16_t ticks = 0;
    std::uint8_t size = 0;  ///< bytes: 1, 2 or 4
    std::uint8_t unit = 0;  ///< power of ten in nanoseconds
    bool fixed = false;     ///< every first ODT carries one

    /// Of one step of the clock; 0: not known
    std::int64_t tickNs() const { return unitNs(ticks, unit); }
};

struct XcpOdtEntry {
    static constexpr std::uint8_t kWholeElement = 0xFF;  ///< as bit offset

    std::uint8_t number = 0;
    xcp::Address address = {};
    std::uint8_t size = 0;  ///< in address elements
    std::uint8_t bitOffset = kWholeElement;
};

struct XcpOdt {
    std::uint8_t number = 0;
    std::vector<XcpOdtEntry> entries;
};

/// One DAQ_LIST of the DAQ block.
struct XcpDaqList {
    std::uint16_t number = 0;
    std::string direction;  ///< DAQ, STIM or DAQ_STIM; empty: not told
    std::uint8_t maxOdt = 0;
    std::uint8_t maxEntries = 0;  ///< of each ODT
    std::optional<std::uint8_t> firstPid;
    std::optional<std::uint16_t> fixedEvent;
    bool predefined = false;
    std::vector<XcpOdt> odts;  ///< of a predefined one
};

/// The DAQ block. What its first part leaves out is 0 or false.
struct XcpDaq {
    bool dynamic = false;
    std::uint16_t maxDaq = 0;
    std::uint16_t maxEventChannel = 0;
    std::uint8_t minDaq = 0;
    std::uint8_t optimisation = 0;      ///< bits 0 to 3 of DAQ_KEY_BYTE
    std::uint8_t addressExtension = 0;  ///< bits 4 and 5 of it
    std::uint8_t identification = 0;    ///< bits 6 and 7 of it
    bool knowsIdentification = false;   ///< the file tells it
    std::uint8_t granularity = 1;       ///< of an ODT entry, bytes
    std::uint8_t maxEntrySize = 0;      ///< of an ODT entry, bytes; 0: not told
    bool overloadInPid = false;
    bool overloadEvent = false;
    bool prescaler = false;
    bool resume = false;
    bool pidOff = false;
    std::optional<XcpTimestamp> timestamp;  ///< absent: DTOs carry none
    std::vector<XcpDaqList> lists;          ///< ascending numbers
    std::vector<XcpEvent> events;

    bool isPredefined(const XcpDaqList& list) const { return list.predefined || list.number < minDaq; }
};

/// What stands in the block of one medium and counts there instead of what stands beside it.
struct XcpOfMedium {
    std::optional<XcpProtocolLayer> protocolLayer;
    std::optional<XcpDaq> daq;
};

/// PAG: calibration pages.
struct XcpPag {
    std::uint8_t maxSegments = 0;
    bool freeze = false;  ///< the ECU can store pages
};

/// DAQ_LIST_CAN_ID.
struct XcpDaqListId {
    std::uint16_t list = 0;
    std::optional<std::uint32_t> id;  ///< absent: VARIABLE, the ECU tells it
};

/// XCP_ON_CAN. Identifiers in A2L notation: bit 31 marks an extended (29-bit) identifier.
struct XcpOnCan : XcpOfMedium {
    std::optional<std::uint32_t> masterId;
    std::optional<std::uint32_t> slaveId;
    std::optional<std::uint32_t> broadcastId;
    std::optional<std::uint32_t> baudrate;      ///< bit/s
    bool maxDlcRequired = false;                ///< in the block itself or in its CAN_FD block
    bool fd = false;                            ///< a CAN_FD block is there
    std::optional<std::uint32_t> dataBaudrate;  ///< CAN_FD_DATA_TRANSFER_BAUDRATE, bit/s
    std::optional<std::uint8_t> maxDlc;         ///< MAX_DLC of the CAN_FD block, bytes
    std::vector<XcpDaqListId> daqListIds;       ///< in file order
};

/// XCP_ON_UDP_IP (and the presence of XCP_ON_TCP_IP).
struct XcpOnUdp : XcpOfMedium {
    std::optional<std::uint16_t> port;
    std::string host;  ///< ADDRESS, IPV6 or HOST_NAME, the first that stands there
};

/// XCP_ON_SxI.
struct XcpOnSerial : XcpOfMedium {
    std::optional<std::uint32_t> baudrate;
};

/// Every part is absent when its block is; of several blocks of one kind the first counts. Protocol layer and
/// DAQ are those for all media, until overrule() puts those of the used one in their place.
struct XcpInterface {
    std::optional<XcpProtocolLayer> protocolLayer;
    std::optional<XcpDaq> daq;
    std::optional<XcpPag> pag;
    std::optional<XcpOnCan> can;
    std::optional<XcpOnUdp> udp;
    bool tcp = false;                   ///< an XCP_ON_TCP_IP block is there
    std::optional<XcpOnUdp> tcpTarget;  ///< of that block
    std::optional<XcpOnSerial> serial;
    std::vector<std::string> unsupported;  ///< keywords of transports that nothing here speaks
    bool ccp = false;                      ///< there is interface data of CCP, another protocol

    /// What the block of a medium says of protocol layer and DAQ counts from now on.
    void overrule(const XcpOfMedium& medium) {
        if (medium.protocolLayer) protocolLayer = medium.protocolLayer;
        if (medium.daq) daq = medium.daq;
    }

    /// The ECU speaks CCP, as far as the file tells.
    bool isCcpOnly() const {
        return ccp && !protocolLayer && !daq && !can && !udp && !tcp && !serial && unsupported.empty();
    }
};

}  // namespace lm::a2l
