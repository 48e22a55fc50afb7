// Whether the software in the ECU, or in an image of its memory, is the one that the A2L describes: the EPK
// of both, compared.
//
// Threads: one at a time. Lifetime: the memory is borrowed for the call; results own their texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "a2l/memory_segments.h"
#include "core/result.h"
#include "session/ecu_memory.h"

namespace lm::session {

struct Identity {
    enum class State : std::uint8_t {
        unknown,  ///< the A2L names no EPK or no address of it, or no one wanted to know
        same,
        different,
        unreadable,
    };

    State state = State::unknown;
    std::string a2l = {};                       ///< the EPK that the A2L names
    std::string ecu = {};                       ///< what the ECU holds there, without what fills it up
    std::optional<Error> error = std::nullopt;  ///< why it could not be read
    bool ofImage = false;                       ///< `ecu` is what an image holds

    /// "the ECU runs "X", the A2L is for "Y""; of one that cannot be read: that, and why.
    std::string text() const;
};

/// "unknown", "same", "different", "unreadable"
std::string_view identityStateName(Identity::State state);

/// An EPK without the blanks, NULs and 0xFF that fill it up.
std::string_view withoutFilling(std::string_view text);

/// Reads as many bytes as the text of the A2L has, once; what fills either up does not count. One byte more
/// is read where that takes no packet more: a visible character there makes the EPK a longer, different one.
/// No packet is sent when the A2L does not name both text and address.
Identity readIdentity(IMemory& memory, const a2l::ModuleParameters& parameters);

/// Why nothing is written to, or with identity.check "refuse" read from, an ECU of another software.
Error otherSoftware(const Identity& identity);

}  // namespace lm::session
