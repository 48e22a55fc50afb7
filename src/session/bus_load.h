// Estimate of the load that a DAQ configuration puts on a CAN bus or a serial line.
//
// Threads: pure functions. Lifetime: nothing is kept.
#pragma once

#include <cstdint>
#include <vector>

namespace lm::session {

/// One DAQ list as packed.
struct LoadList {
    std::uint64_t cycleNs = 0;  ///< nominal period of the event, 0 when it is unknown or not cyclic
    std::uint8_t prescaler = 1;
    bool timestamp = false;               ///< the first ODT carries one
    std::vector<std::uint32_t> odtBytes;  ///< payload of each ODT, without identification field and timestamp
};

struct LoadInput {
    std::vector<LoadList> lists;
    std::uint8_t identificationType = 0;  ///< as GET_DAQ_PROCESSOR_INFO codes it (0 to 3)
    std::uint8_t timestampSize = 0;       ///< bytes
};

struct CanTiming {
    std::uint32_t bitrate = 0;      ///< bit/s, 0: unknown
    std::uint32_t dataBitrate = 0;  ///< bit/s, 0: classic CAN
    bool extendedIds = false;
    bool maxDlcRequired = false;  ///< every frame is padded to its full length
};

struct LoadEstimate {
    double framesPerSecond = 0;
    double fraction = 0;       ///< of 1
    double bitsPerSecond = 0;  ///< fraction x nominal bit rate
    bool incomplete = false;   ///< a list is event-driven or unknown and not in the figures
};

/// Worst-case stuffing; an unknown bit rate gives a load of 0 and so never blocks a measurement.
LoadEstimate estimateCanLoad(const LoadInput& input, const CanTiming& timing);

/// 10 bit times per byte; a baud rate of 0 gives a load of 0.
LoadEstimate estimateSerialLoad(const LoadInput& input, std::uint32_t baudrate);

/// UDP counts as no load: frames per second only.
LoadEstimate estimateUdpLoad(const LoadInput& input);

}  // namespace lm::session
