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

namespace lm::a2l {

/// PROTOCOL_LAYER.
struct XcpProtocolLayer {
    double version = 0;
    std::array<std::uint16_t, 7> timeoutsMs{};  ///< T1 to T7; 0 counts as absent
    std::uint8_t maxCto = 0;
    std::uint16_t maxDto = 0;
    std::optional<ByteOrder> byteOrder;
    std::optional<std::uint8_t> addressGranularity;  ///< 1, 2 or 4
    std::vector<std::string> optionalCommands;       ///< OPTIONAL_CMD names in file order
    std::string keyLibrary;                          ///< SEED_AND_KEY_EXTERNAL_FUNCTION; never loaded
};

/// One EVENT of the DAQ block.
struct XcpEvent {
    std::string name;
    std::string shortName;
    std::uint16_t channel = 0;
    std::string direction;
    std::uint8_t maxDaqList = 0;
    std::uint8_t timeCycle = 0;
    std::uint8_t timeUnit = 0;  ///< power of ten in nanoseconds
    std::uint8_t priority = 0;
};

/// The DAQ block.
struct XcpDaq {
    bool dynamic = false;
    std::optional<std::uint8_t> timestampSize;  ///< bytes (1, 2, 4); absent without TIMESTAMP_SUPPORTED
    std::vector<XcpEvent> events;
};

/// XCP_ON_CAN. Identifiers in A2L notation: bit 31 marks an extended (29-bit) identifier.
struct XcpOnCan {
    std::optional<std::uint32_t> masterId;
    std::optional<std::uint32_t> slaveId;
    std::optional<std::uint32_t> broadcastId;
    std::optional<std::uint32_t> baudrate;      ///< bit/s
    bool maxDlcRequired = false;                ///< in the block itself or in its CAN_FD block
    bool fd = false;                            ///< a CAN_FD block is there
    std::optional<std::uint32_t> dataBaudrate;  ///< CAN_FD_DATA_TRANSFER_BAUDRATE, bit/s
    std::optional<std::uint8_t> maxDlc;         ///< MAX_DLC of the CAN_FD block, bytes
    std::vector<std::uint32_t> daqListIds;      ///< fixed identifiers of DAQ_LIST_CAN_ID blocks
};

/// XCP_ON_UDP_IP (and the presence of XCP_ON_TCP_IP).
struct XcpOnUdp {
    std::optional<std::uint16_t> port;
    std::string host;  ///< ADDRESS, IPV6 or HOST_NAME, the first that stands there
};

/// XCP_ON_SxI.
struct XcpOnSerial {
    std::optional<std::uint32_t> baudrate;
};

/// Every part is absent when its block is; of several blocks of one kind the first counts.
struct XcpInterface {
    std::optional<XcpProtocolLayer> protocolLayer;
    std::optional<XcpDaq> daq;
    std::optional<XcpOnCan> can;
    std::optional<XcpOnUdp> udp;
    bool tcp = false;                   ///< an XCP_ON_TCP_IP block is there
    std::optional<XcpOnUdp> tcpTarget;  ///< of that block
    std::optional<XcpOnSerial> serial;
    std::vector<std::string> unsupported;  ///< keywords of transports that nothing here speaks
    bool ccp = false;                      ///< there is interface data of CCP, another protocol

    /// The ECU speaks CCP, as far as the file tells.
    bool isCcpOnly() const {
        return ccp && !protocolLayer && !daq && !can && !udp && !tcp && !serial && unsupported.empty();
    }
};

}  // namespace lm::a2l
