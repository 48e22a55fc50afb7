// Standard error of the program: error lines, state changes, statistics and the log, in the order in which
// they come.
//
// No thread of a session must wait for whoever reads standard error. A text is therefore written as far as
// the reader takes it now; the rest is queued for a thread "messages". When the queue is full (its reader
// pauses), lines are dropped, and their number is printed in their place.
//
// Threads: construction, start() and destruction belong to the owner, around all other threads that print;
// print and printMessage from any. Lifetime: the descriptor is borrowed and stays open.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "cli/nonblocking_output.h"
#include "core/result.h"

namespace lm::cli {

class MessageOutput {
  public:
    /// One text always finds room in an empty queue.
    static constexpr std::size_t kQueueBytes = std::size_t{64} << 10U;

    explicit MessageOutput(int descriptor) : output_(descriptor) {}
    /// Gives a reader that takes nothing half a second, a slow one two seconds.
    ~MessageOutput();
    MessageOutput(const MessageOutput&) = delete;
    MessageOutput& operator=(const MessageOutput&) = delete;

    /// From now on printMessage prints here. Error: "cannot start the printer of messages: REASON".
    Result<void> start();

    /// Whole lines; `shown` is the text as last() gives it.
    void print(std::string_view text, std::string_view shown);
    void print(std::string_view text) { print(text, text); }

    /// From now on texts are kept for release(), as far as the queue has room.
    void hold();
    void release();
    /// The text printed last, empty for none.
    std::string last() const;

  private:
    using Clock = std::chrono::steady_clock;

    void writeQueue();
    std::size_t writeSome(std::string_view text);
    std::string droppedLine() const;

    mutable std::mutex mutex_;  // everything below but the thread
    NonblockingOutput output_;
    std::condition_variable filled_;
    std::string queue_;
    bool held_ = false;
    std::string last_;
    std::uint64_t dropped_ = 0;                  ///< lines behind those of the queue
    std::optional<Clock::time_point> deadline_;  ///< set once the thread is to end
    Clock::time_point latestDeadline_;

    std::thread thread_;
};

/// Whole lines on standard error: through the MessageOutput that has been started, else directly.
void printMessage(std::string_view text);
/// The same for one line; what does not print is escaped.
void printMessageLine(const std::string& line);

/// Keeps what is printed from now on, where standard error is a terminal: it would tear the screen that is
/// drawn there.
void holdMessages();
/// Prints what has been kept.
void releaseMessages();
/// What was printed last, without time and line end; empty for nothing.
std::string lastMessage();

/// The log goes where the messages go.
void setUpLogging(bool verbose);

}  // namespace lm::cli
