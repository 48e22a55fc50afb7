// How far a command has come: a line on the terminal that is written over and over; nothing when standard
// error is none, and for what is done quickly.
//
// Threads: one thread. Lifetime: the destructor removes the line.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

namespace lm::cli {

class ProgressLine {
  public:
    /// `doing` is the first word of the line, and lives as long as this.
    ProgressLine(bool shown, std::string_view doing);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// Bytes.
    void show(std::uint64_t done, std::uint64_t total);

  private:
    using Clock = std::chrono::steady_clock;

    const bool isTerminal_;
    const std::string_view doing_;
    bool shown_ = false;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point next_ = start_ + std::chrono::milliseconds(300);
};

}  // namespace lm::cli
