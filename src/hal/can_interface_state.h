// What the kernel says about a CAN interface, and bit timings in its units.
//
// Threads: plain values. Lifetime: own everything.
#pragma once

#include <cstdint>
#include <string>

#include "hal/can_channel_event.h"

namespace lm::hal {

struct CanBitTiming {
    std::uint32_t bitrate = 0;      ///< bit/s
    std::uint16_t samplePoint = 0;  ///< tenths of a percent (875: 87.5 %); 0: the driver's choice

    bool operator==(const CanBitTiming&) const = default;
};

struct CanInterfaceState {
    static constexpr std::uint32_t kListenOnly = 0x02;  ///< bit of `controlMode`
    static constexpr std::uint32_t kFd = 0x20;          ///< bit of `controlMode`
    static constexpr std::uint32_t kFdMtu = 72;         ///< bytes, of an interface that takes CAN FD frames

    bool up = false;  ///< switched on (not: has a carrier)
    std::string kind =
        {};  ///< "can" for controllers, "vcan" or another text for virtual interfaces, may be empty
    std::uint32_t mtu = 0;            ///< bytes
    CanBitTiming bitTiming = {};      ///< bit rate 0: not set, or a virtual interface
    CanBitTiming dataBitTiming = {};  ///< of the CAN FD data phase, likewise
    std::uint32_t controlMode = 0;
    CanBusState busState = CanBusState::unknown;  ///< unknown also for a stopped controller
    std::uint32_t restartMs = 0;  ///< after bus off the controller restarts by itself; 0: it does not

    bool isController() const { return kind == "can"; }
    bool has(std::uint32_t modeBit) const { return (controlMode & modeBit) != 0; }
};

}  // namespace lm::hal
