// Misbehaviour on order: the rules given with --fault and the decision, packet by packet, what goes wrong.
//
// A rule for commands reads KIND[:COMMAND[:FROM[:COUNT[:ARGUMENT[:PAUSE]]]]]; COMMAND is a command's name,
// "*" for any or "DAQ" for samples; FROM counts from 1; COUNT 0 means for ever; PAUSE is for `halt` alone. A
// rule for DTOs reads KIND:EVERY.
//
// Threads: one thread at a time. Lifetime: owns its rules.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"

namespace lm::sim {

enum class FaultKind : std::uint8_t {
    none,
    ignore,     ///< not executed, not answered
    lose,       ///< executed, not answered
    late,       ///< answered after ARGUMENT ms (300), and so is all that is asked meanwhile
    overtaken,  ///< answered after ARGUMENT ms, what is asked meanwhile before it; 0: after the next answer
    twice,      ///< answered twice, the second time ARGUMENT ms later (0), before what is asked meanwhile
    losePart,   ///< of the packets of an answer that number ARGUMENT (2), from 1, is not sent
    extraPart,  ///< and that one is sent twice
    cut,        ///< answer cut to ARGUMENT bytes (1)
    wrong,      ///< every byte of the answer but the first inverted
    stray,      ///< a one-byte positive response before the answer
    busy,       ///< not executed, ERR_CMD_BUSY
    error,      ///< not executed, error code ARGUMENT (0x31)
    positive,   ///< not executed, a positive response of one byte
    pending,    ///< four EV_CMD_PENDING spread over ARGUMENT ms (300), then the answer
    endless,    ///< not executed, EV_CMD_PENDING every ARGUMENT ms (100) until CONNECT or DISCONNECT
    terminate,  ///< EV_SESSION_TERMINATED instead of the answer
    silence,    ///< nothing heard, nothing sent for ARGUMENT ms (0: for ever)
    restart,    ///< the ECU starts anew and does not answer
    stall,      ///< events wait for ARGUMENT ms (300), then they are caught up
    jump,       ///< the clock, not the events, goes on (or back) by ARGUMENT ms; 0: it begins anew
    halt,  ///< the whole ECU stands still for ARGUMENT ms (300), then works off what came, PAUSE ms apart
};

/// Faults of the stream of DTOs, each on every EVERY-th occasion.
enum class StreamFault : std::uint8_t {
    loseOdt,       ///< a DTO is not sent, the packet counter does not show it
    overload,      ///< a whole sample is not sent and overload is indicated
    ctrGap,        ///< the packet counter skips a value, nothing is lost
    loseDatagram,  ///< a DTO is lost on the way, the counter shows it
    malformed,     ///< the header of a DTO announces more bytes than its datagram has
};
inline constexpr std::size_t kStreamFaultCount = 5;

/// What is to happen now, and its number.
struct Fault {
    FaultKind kind = FaultKind::none;
    std::uint32_t argument = 0;  ///< of `jump` in two's complement
    std::uint32_t haltMs = 0;    ///< before it the ECU stands still; goes together with any kind
    std::uint32_t pauseMs = 0;   ///< between the commands that it then works off
};

class FaultPlan {
  public:
    /// Errors: invalidArgument with "fault 'TEXT': " and the reason.
    static Result<FaultPlan> parse(const std::vector<std::string>& rules);

    /// Counts a command for every rule that watches it; the first rule in its span says what happens, and the
    /// first `halt` besides.
    Fault onCommand(std::uint8_t code) { return count(code, false); }
    /// Likewise for a sample of a DAQ list; only terminate, silence, restart, stall and jump make sense here.
    Fault onSample() { return count(0, true); }
    /// Counts an occasion; true when it is its turn.
    bool due(StreamFault fault) {
        Cycle& cycle = cycles_[static_cast<std::size_t>(fault)];
        return cycle.every != 0 && ++cycle.seen % cycle.every == 0;
    }

  private:
    struct Rule {
        FaultKind kind = FaultKind::none;
        bool daq = false;
        std::uint8_t command = 0;  ///< 0: any
        std::uint64_t from = 1;
        std::uint64_t count = 1;
        std::uint32_t argument = 0;
        std::uint32_t pause = 0;
        std::uint64_t seen = 0;
    };
    struct Cycle {
        std::uint64_t every = 0;
        std::uint64_t seen = 0;
    };

    Result<void> add(const std::string& text);
    Fault count(std::uint8_t code, bool daq);

    std::vector<Rule> rules_;
    std::array<Cycle, kStreamFaultCount> cycles_{};
};

}  // namespace lm::sim
