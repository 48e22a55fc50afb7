// The steady clock of a fuzz target and its waits on condition variables, without waiting: time passes only
// when the program waits, and then at once. The target's single thread plays all parts.
//
// Link virtual_clock.cpp into a program that has no other thread which waits.
#pragma once

#include <cstdint>
#include <functional>

namespace lm::fuzz {

struct VirtualClock {
    static std::int64_t nowNs;
    /// What happens at the times to come: the time of the next event, or none (the largest number).
    static std::function<std::int64_t()> nextNs;
    /// Lets the next event happen, with `nowNs` its time and none of the program's locks held.
    static std::function<void()> happen;
};

}  // namespace lm::fuzz
