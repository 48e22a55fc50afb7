// Keeps the serial line of a session open for the console: opens it, and opens it again when it could not be
// opened or has gone. What becomes of it stands in the session's console log.
//
// Threads: construction, start(), end() and destruction belong to the owner; begun() from any. The thread
// "line-keeper" makes all calls of Session::openTransport and Session::open meanwhile. Lifetime: the session
// is borrowed.
#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "session/session.h"

namespace lm::cli {

class LineKeeper {
  public:
    explicit LineKeeper(session::Session& session) : session_(session), stop_(session.stopToken()) {}
    ~LineKeeper() { end(); }
    LineKeeper(const LineKeeper&) = delete;
    LineKeeper& operator=(const LineKeeper&) = delete;

    /// Begins to open the line; "connect: REASON (showing the text only)" on standard error when there is no
    /// line or no XCP on it. Error: "cannot keep the line open: REASON".
    Result<void> start();

    /// The first attempt is over, whatever came of it.
    bool begun() const { return begun_.load(); }

    /// Ends the waits of the session (which is of no other use then) and the thread. Idempotent.
    void end();

  private:
    void keep();
    void watch();
    bool openFirst();
    bool openAgain();

    session::Session& session_;
    const StopToken stop_;

    std::atomic<bool> begun_{false};

    // The thread's alone.
    std::string told_;      ///< why the line is not open, as told last
    bool watches_ = false;  ///< the ECU was connected

    std::thread thread_;
};

}  // namespace lm::cli
