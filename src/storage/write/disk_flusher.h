// Flushes files to the disk when asked, in a thread of its own: a disk that stalls must not keep records from
// being written, which the system's memory takes meanwhile.
//
// Threads: start, request and stop belong to one thread at a time; failed from any. Lifetime: the descriptors
// are borrowed until stop() or the destructor has returned.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "core/result.h"

namespace lm::storage {

class DiskFlusher {
  public:
    DiskFlusher() = default;
    ~DiskFlusher() { stop(); }
    DiskFlusher(const DiskFlusher&) = delete;
    DiskFlusher& operator=(const DiskFlusher&) = delete;

    /// Errors: "cannot start the flushing thread: REASON".
    Result<void> start(std::vector<int> descriptors);

    /// What was written before reaches the disk soon; requests that come during a flush become one more.
    void request();
    /// Some flush has failed.
    bool failed() const { return failed_.load(); }
    /// Returns when the flush under way, if any, has ended; one that was asked for behind it is left out.
    void stop();

  private:
    void run();

    std::vector<int> descriptors_;  ///< constant while the thread runs
    std::atomic<bool> failed_{false};
    std::mutex mutex_;
    std::condition_variable changed_;
    bool requested_ = false;  ///< under mutex_
    bool stopping_ = false;   ///< under mutex_
    std::thread thread_;      ///< the owner's
};

}  // namespace lm::storage
