// Cuts the text that an ECU prints into lines, safe to show (see core/printable_text.h).
//
// Threads: belongs to one thread. Lifetime: owns the open line; the lines handed on are valid during the call
// only.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace lm::xcp {

class TextLines {
  public:
    using Clock = std::chrono::steady_clock;
    using Receiver = std::function<void(std::string_view line)>;

    explicit TextLines(Receiver receiver) : receiver_(std::move(receiver)) {}

    /// Lines end at LF, a CR before it is dropped. A line is cut after kLongestPart bytes.
    void add(const std::uint8_t* data, std::size_t length, Clock::time_point now);

    /// Hands on a part line after which no text came for kSilence.
    void handOnWhenSilent(Clock::time_point now);

    /// Hands on a part line.
    void handOn();

    static constexpr std::size_t kLongestPart = 4096;
    static constexpr std::chrono::milliseconds kSilence{200};

  private:
    void endLine();
    void cutLine();
    void givePart(std::string_view part);

    Receiver receiver_;
    std::string open_;        ///< the line so far
    bool partGiven_ = false;  ///< its begin is handed on already
    Clock::time_point last_;  ///< when text came last
};

}  // namespace lm::xcp
