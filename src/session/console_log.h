// The lines of the plain-text conversation with an ECU on a serial line, for a console to show them: what the
// ECU printed, what was sent to it, what became of the line.
//
// Threads: any. Lifetime: owns its lines, the last kCapacity or kMaxBytes of them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "core/result.h"
#include "xcp/text_sink.h"

namespace lm::session {

enum class ConsoleLineKind : std::uint8_t {
    received,  ///< printed by the ECU
    sent,      ///< sent to the ECU
    notice,    ///< about the line itself
};

struct ConsoleLine {
    std::chrono::system_clock::time_point time;
    ConsoleLineKind kind = ConsoleLineKind::received;
    std::string text;  ///< without line end, safe to print on a terminal
};

class ConsoleLog final : public xcp::ITextSink {
  public:
    static constexpr std::size_t kCapacity = 10000;
    /// Of their texts; an ECU that prints long lines does not fill the memory with them.
    static constexpr std::size_t kMaxBytes = std::size_t{4} << 20U;

    /// Adds a line with the time of now. What the ECU prints is also logged at debug level, for commands that
    /// do not show it.
    void onText(std::string_view line) override;
    void onNotice(std::string_view text) override { add(ConsoleLineKind::notice, std::string(text)); }

    /// Calls `send` and, when it succeeds, adds the line as sent, in front of all that the ECU prints
    /// meanwhile (behind it when that fills half the log). Control characters of the line stand as \xNN in
    /// the log. Error: that of `send`.
    Result<void> addSent(std::string_view line, const std::function<Result<void>()>& send);

    /// The lines behind `position` (0: from the first one ever), which then stands behind them.
    struct Reading {
        std::vector<ConsoleLine> lines;
        std::uint64_t missed = 0;  ///< lines behind the position that had fallen out of the log
    };
    Reading read(std::uint64_t& position) const;

  private:
    void add(ConsoleLineKind kind, std::string text);
    void appendLocked(ConsoleLine line);
    void releaseLocked();

    std::mutex sending_;  ///< one line at a time is being sent

    mutable std::mutex mutex_;  // everything below
    std::deque<ConsoleLine> lines_;
    std::size_t bytes_ = 0;          ///< of lines_
    std::uint64_t fallenOut_ = 0;    ///< number of the first line in lines_
    bool holding_ = false;           ///< a line is being sent
    std::vector<ConsoleLine> held_;  ///< added meanwhile
    std::size_t heldBytes_ = 0;      ///< of held_
};

}  // namespace lm::session
