// What a transport tells beside packets: a condition of its medium.
//
// Threads: plain values. Lifetime: own nothing.
#pragma once

#include <cstdint>
#include <variant>

#include "hal/can_channel_event.h"

namespace lm::xcp {

/// The host could not keep up and dropped what had arrived.
struct PacketsLost {
    std::uint32_t count = 0;
};

/// The receive thread goes on all the same.
struct ReceiveFailed {
    int error = 0;  ///< errno
};

struct TransportEvent {
    /// On CAN what the channel reported, unchanged; on the other media one of the rest.
    std::variant<hal::CanChannelEvent, PacketsLost, ReceiveFailed> what;
};

}  // namespace lm::xcp
