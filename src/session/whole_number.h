// Whole numbers and nesting of files that this program wrote and anyone may have changed.
//
// Threads: pure functions.
#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace lm::session {

/// Throws std::out_of_range, as the JSON library does for what it cannot read, where it would cut off what is
/// too large.
template <std::unsigned_integral T>
T wholeNumber(const nlohmann::json& entry) {
    constexpr T kMost = std::numeric_limits<T>::max();
    if (!entry.is_number_unsigned() || entry.get<std::uint64_t>() > kMost)
        throw std::out_of_range(entry.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
                                " is no whole number from 0 to " + std::to_string(kMost));
    return static_cast<T>(entry.get<std::uint64_t>());
}

/// For the JSON library to call while it parses: throws std::length_error where the text is nested too deep.
inline bool refuseDeepNesting(int depth, nlohmann::json::parse_event_t /*event*/,
                              nlohmann::json& /*parsed*/) {
    if (depth > 8) throw std::length_error("nested deeper than 8 levels");
    return true;
}

}  // namespace lm::session
