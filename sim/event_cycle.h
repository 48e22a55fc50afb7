// When the event channels occur: their nominal cycles, as numbers and as XCP tells them.
//
// Threads: pure functions.
#pragma once

#include <cstdint>

#include "sim/catalog.h"
#include "sim/options.h"

namespace lm::sim {

/// TIME_CYCLE and TIME_UNIT of an event channel: count * 10^unit nanoseconds; count 0: not cyclic.
struct EventCycle {
    std::uint8_t count;
    std::uint8_t unit;
};

/// Nanoseconds from occurrence n of an event to the next one; n = 0 stands for the start of the ECU.
constexpr std::int64_t eventIntervalNs(const Options& options, std::uint8_t event, std::uint32_t n) {
    switch (event) {
        case kEvent1ms:
            return static_cast<std::int64_t>(options.fastEventUs) * 1000;
        case kEvent10ms:
            return 10'000'000;
        case kEvent100ms:
            return 100'000'000;
        default:
            return asyncIntervalMs(n) * 1'000'000;
    }
}

constexpr EventCycle eventCycle(const Options& options, std::uint8_t event) {
    if (event == kEventAsync) return {0, 0};
    std::int64_t count = eventIntervalNs(options, event, 0);
    std::uint8_t unit = 0;
    while (count > 255 || (count % 10 == 0 && unit < 9 && unit % 3 != 0)) {
        count /= 10;
        ++unit;
    }
    return {static_cast<std::uint8_t>(count), unit};
}

}  // namespace lm::sim
