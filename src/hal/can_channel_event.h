// Bus states and channel conditions that a CAN channel reports beside its frames.
//
// Threads: plain values. Lifetime: own nothing.
#pragma once

#include <cstdint>

namespace lm::hal {

/// Error state of a CAN controller (ISO 11898-1 fault confinement); the values are fixed.
enum class CanBusState : std::uint8_t {
    unknown = 0,
    errorActive = 1,
    errorWarning = 2,
    errorPassive = 3,
    busOff = 4
};

enum class CanChannelEventKind : std::uint8_t {
    stateChanged = 0,
    framesLost = 1,
    errorFrame = 2,
    receiveFailed = 3,
};

/// One condition of the medium.
struct CanChannelEvent {
    CanChannelEventKind kind = CanChannelEventKind::stateChanged;
    std::int64_t timeNs = 0;                   ///< steady clock, nanoseconds
    CanBusState state = CanBusState::unknown;  ///< the channel's state after the event
    /// framesLost: number of frames; errorFrame: error-class bits; receiveFailed: errno; stateChanged: 0.
    std::uint32_t value = 0;
};

}  // namespace lm::hal
