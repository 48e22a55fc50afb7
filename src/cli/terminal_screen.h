// The terminal as a screen that is drawn in place, and its arrow keys. Whatever ends the drawing, the
// terminal is then as it was: the end of the object, Ctrl-Z until `fg`, a signal that ends the program.
//
// In the background the terminal is others': nothing is drawn and no key is read until the program comes to
// the foreground.
//
// Threads: belongs to one thread, and there is one object in a process at a time, since signal handlers
// restore the terminal. No call waits for the terminal but leave(), for a second at most. Lifetime: the
// descriptors are borrowed and stay open.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/nonblocking_output.h"
#include "cli/signal_table.h"
#include "core/result.h"

namespace lm::cli {

/// Gives the terminal back at once, for a program that is about to end by a signal. A terminal that takes
/// nothing loses what waits for it. Without a screen it does nothing. From any thread and any signal handler.
void restoreTerminal();

enum class Key : std::uint8_t { up, down, pageUp, pageDown, home, end };

class TerminalScreen {
  public:
    /// Error: why nothing can be drawn in place on what `output` is.
    static Result<void> check(int output);

    TerminalScreen(int output, int input);
    ~TerminalScreen();
    TerminalScreen(const TerminalScreen&) = delete;
    TerminalScreen& operator=(const TerminalScreen&) = delete;

    ScreenSize size() const;

    /// Shows the lines, after what a stop (Ctrl-Z) or a way to the foreground asks for. Lines that are shown
    /// already are not sent again; nothing is while the terminal has not taken what was sent before.
    void draw(const std::vector<ScreenLine>& lines);

    /// Gives the terminal back; the screen that was there before is there again.
    void leave();

    /// For poll(): readable when keys have been pressed; -1 when none are to be read.
    int keyDescriptor() const { return entered_ && hasKeys_ && inForeground() ? input_ : -1; }
    /// Those pressed since.
    std::vector<Key> keys();

    /// The errno of the write that failed, 0 when none did.
    int failure() const { return failure_; }

  private:
    void enter();
    void followSignals();
    bool inForeground() const;
    void send(const std::string& text);
    void flush();
    void waitUntilSent(std::chrono::milliseconds limit);

    const int output_;
    const int input_;
    NonblockingOutput writer_;
    bool hasKeys_;
    bool entered_ = false;
    int failure_ = 0;
    std::string unsent_;
    std::string keyBytes_;  ///< of a key that has come in part
    ScreenSize shownSize_;
    std::vector<ScreenLine> shown_;
};

}  // namespace lm::cli
