// SIGINT, SIGTERM and, unless it is ignored (nohup), SIGHUP: the first one asks the program to stop; a SIGINT
// or SIGTERM that comes later kills it. What comes within 300 ms of the first belongs to it.
//
// Threads: installStopHandlers from the main thread before any other; everything else from any thread.
// Lifetime: process-wide.
#pragma once

#include <optional>
#include <thread>

#include "core/result.h"
#include "core/stop_token.h"

namespace lm::cli {

/// Installs the handlers and ignores SIGPIPE and SIGXFSZ, so that a reader that went away and a file at its
/// size limit are write errors. Error: by errno "cannot create an event descriptor: ...".
Result<void> installStopHandlers();

bool stopRequested();

/// Of the whole program.
StopToken stopToken();

/// While it lives, a thread passes the stop on to the callbacks, which a signal handler cannot run: what
/// waits on a condition variable ends so.
class StopWatcher {
  public:
    StopWatcher() = default;
    /// Begins to watch. Error: "cannot watch for signals: REASON".
    Result<void> start();
    ~StopWatcher();
    StopWatcher(const StopWatcher&) = delete;
    StopWatcher& operator=(const StopWatcher&) = delete;

  private:
    std::optional<StopSource> end_;
    std::thread thread_;
};

}  // namespace lm::cli
