// SIGINT, SIGTERM and, unless it is ignored (nohup), SIGHUP: the first one asks the program to stop; a SIGINT
// or SIGTERM that comes later kills it. What comes within 300 ms of the first belongs to it.
//
// Threads: installStopHandlers from the main thread before any other; everything else from any thread.
// Lifetime: process-wide; a StopWatcher borrows what its function touches until it is destroyed.
#pragma once

#include <functional>
#include <mutex>
#include <thread>

#include "core/result.h"

namespace lm::cli {

/// Installs the handlers and ignores SIGPIPE and SIGXFSZ, so that a reader that went away and a file at its
/// size limit are write errors. Error: by errno "cannot create an event descriptor: ...".
Result<void> installStopHandlers();

bool stopRequested();

/// Readable for poll() once a stop is requested; never to be read.
int stopDescriptor();

/// Calls a function once, on a thread of its own, when a stop is requested: what blocks the main thread
/// (waiting for the ECU) can be ended from there, but not from a signal handler.
class StopWatcher {
  public:
    explicit StopWatcher(std::function<void()> onStop);
    /// Begins to watch. Error: "cannot watch for signals: REASON".
    Result<void> start();
    ~StopWatcher();
    StopWatcher(const StopWatcher&) = delete;
    StopWatcher& operator=(const StopWatcher&) = delete;

    /// Calls the function now unless it has been called; has returned from it in either case.
    void stopNow();

  private:
    void watch();

    const std::function<void()> onStop_;
    const int end_;  ///< eventfd, readable when the watcher is to end
    std::once_flag called_;
    std::thread thread_;
};

}  // namespace lm::cli
