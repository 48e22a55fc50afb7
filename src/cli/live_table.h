// The signals of a running measurement as a table on the terminal, drawn in place some times a second.
//
// Messages that would tear the screen wait until it is left; the last one stands in the table. The thread
// that receives records never waits for the terminal: it only notes them (signal_extremes.h).
//
// Threads: belongs to one thread; sink() is called on the receive thread. Lifetime: what is measured is
// borrowed during a call, nothing of the plan is kept. Whoever has called begin() gets the terminal back with
// finish() or the end of the object.
#pragma once

#include <chrono>
#include <deque>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "cli/signal_extremes.h"
#include "cli/signal_table.h"
#include "cli/terminal_screen.h"
#include "session/measured.h"
#include "value/value_text.h"

namespace lm::cli {

class LiveTable {
  public:
    using Clock = std::chrono::steady_clock;

    /// `recording` is the directory of which the size is shown, empty for none.
    LiveTable(value::NumberStyle style, std::filesystem::path recording);
    ~LiveTable();
    LiveTable(const LiveTable&) = delete;
    LiveTable& operator=(const LiveTable&) = delete;

    void setPlan(const session::MeasurementPlan& plan);
    xcp::IDaqRecordSink& sink() { return extremes_; }

    void begin();
    /// Draws when it is time to. To be called again at nextDraw(), and when a key has been pressed.
    void update(const session::IMeasured& session, double seconds);
    Clock::time_point nextDraw() const { return nextDraw_; }
    int keyDescriptor() const { return screen_ ? screen_->keyDescriptor() : -1; }
    void takeKeys();
    /// Gives the terminal back; the messages are printed then.
    void finish();

    /// The errno of what the terminal did not take, 0 when it took all.
    int failure() const { return screen_ ? screen_->failure() : 0; }

  private:
    /// What the lists had at a time.
    struct Counted {
        Clock::time_point time;
        std::vector<SignalExtremes::List> lists;
    };
    struct Column {
        value::Element element;
        std::size_t list;
    };

    void scroll(std::ptrdiff_t by);
    void countRecords(Clock::time_point now);
    double rateOf(std::size_t list, Clock::time_point now) const;
    TableStatus status(const session::IMeasured& session, double seconds);
    std::size_t greatestNumber() const;
    std::string valueText(const Column& column, bool known, const SignalExtremes::Bytes& bytes) const;
    SignalRow row(std::size_t signal, Clock::time_point now) const;

    const value::NumberStyle style_;
    const std::filesystem::path recording_;
    SignalExtremes extremes_;
    SignalExtremes::Snapshot seen_;
    std::vector<Column> columns_;
    std::optional<SignalTable> table_;
    std::optional<TerminalScreen> screen_;
    std::deque<Counted> counted_;  ///< of the last second, oldest first
    std::size_t first_ = 0;        ///< signal on the first row
    std::size_t room_ = 0;         ///< rows of the last drawing
    Clock::time_point nextDraw_;
    Clock::time_point nextSize_;
    std::string size_;
};

}  // namespace lm::cli
