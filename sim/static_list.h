// A DAQ list that exists from the start: how much fits into it, and what it cannot be told.
//
// Threads: a plain record, constant once the ECU is built.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace lm::sim {

struct StaticList {
    struct Entry {
        std::uint32_t address = 0;
        std::uint8_t extension = 0;
        std::uint8_t size = 0;  ///< bytes
    };

    std::uint8_t maxOdts = 0;
    std::uint8_t maxEntries = 0;                      ///< per ODT
    std::optional<std::uint8_t> event = {};           ///< the only one that it can be on
    std::uint8_t firstPid = 0;                        ///< with identification type 0
    std::vector<std::vector<Entry>> predefined = {};  ///< what each ODT holds for ever; empty: configurable
};

}  // namespace lm::sim
