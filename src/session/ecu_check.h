// What an ECU says of itself beside what its A2L says, line by line.
//
// Threads: one at a time. Lifetime: results own everything; the session is borrowed for the call.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "params/memory_file.h"
#include "session/checksum_file.h"
#include "session/page_control.h"
#include "session/session.h"

namespace lm::session {

struct CheckLine {
    enum class State : std::uint8_t {
        same,
        different,
        told,     ///< by one side alone: there is nothing to compare
        unknown,  ///< could not be found out
    };

    State state = State::told;
    std::string what;
    std::string ecu = {};
    std::string expected = {};  ///< by the A2L, or by an earlier check; empty: neither says anything
};

/// "CRC_32 0x12345678": the kind and the sums of the first blocks.
std::string sumText(const SegmentSums& sums);

/// "same", "different", "told", "unknown"
std::string_view checkStateName(CheckLine::State state);

struct CheckResult {
    std::vector<CheckLine> lines;
    ChecksumFile sums;  ///< of all segments that have some

    bool hasDifferences() const;
};

/// Asks for all that the ECU tells. `against`: an earlier check, `image`: what the segments should hold, each
/// nullptr for none. Errors: those of a
/// connection that is lost on the way; what an ECU does not know becomes a line.
Result<CheckResult> checkEcu(Session& session, const ChecksumFile* against, const params::MemoryFile* image);

}  // namespace lm::session
