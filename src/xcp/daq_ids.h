// The CAN identifiers with which a slave sends the DTOs of its DAQ lists: GET_DAQ_ID and SET_DAQ_ID. All
// identifiers here are in A2L notation, in which bit 31 marks 29 bits.
//
// Threads: any; each operation holds the line until it is done. Lifetime: the connection is borrowed for the
// call.
#pragma once

#include <cstdint>
#include <optional>

#include "xcp/connection.h"

namespace lm::xcp {

struct DaqId {
    std::uint32_t id = 0;
    bool fixed = false;  ///< SET_DAQ_ID cannot change it
};

/// What a slave answers about one list.
struct DaqIdAnswer {
    bool known = true;                         ///< false: it does not know the question, or never answers it
    std::optional<DaqId> told = std::nullopt;  ///< nothing: not for this list
};

/// Errors: the connection's; a refusal is none.
Result<DaqIdAnswer> askDaqId(Connection& connection, std::uint16_t list);

/// The list must not run. Errors: the connection's.
Result<void> setDaqId(Connection& connection, std::uint16_t list, std::uint32_t id);

}  // namespace lm::xcp
