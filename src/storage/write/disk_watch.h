// Warns before the disk of a recording is full: when it will not hold a measurement of known length, and an
// hour before there is no room left.
//
// Threads: start() and stop() belong to the owner. start() looks once itself, then a thread "rec-disk" every
// few seconds, which may wait for a slow disk. Lifetime: owns everything; the destructor stops the thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "core/result.h"
#include "storage/format/recording_info.h"

namespace lm::storage {

/// Of the disk that holds a path; none when it cannot be asked.
std::optional<std::uint64_t> freeDiskBytes(const std::filesystem::path& path);

/// Bytes per second that the groups with a cycle take on the disk, index and levels included.
double expectedBytesPerSecond(const RecordingInfo& info);

/// When a disk will be full, from one look at it to the next. Belongs to one thread at a time.
class DiskForecast {
  public:
    using Seconds = std::chrono::duration<double>;

    /// `duration` of the measurement, 0: open.
    DiskForecast(double expectedBytesPerSecond, Seconds duration)
        : expected_(expectedBytesPerSecond), duration_(duration) {}

    /// What is to be told of `freeBytes`, so long after the start. Each warning comes once, and once more
    /// after it has turned out to be wrong; else it is empty.
    std::string look(Seconds sinceStart, std::uint64_t freeBytes);

  private:
    void measure(Seconds sinceStart, std::uint64_t freeBytes);

    const double expected_;
    const Seconds duration_;
    double measured_ = 0;  ///< bytes per second that the disk lost in the last whole minute, to whomever
    Seconds measuredAt_{0};
    std::uint64_t freeThen_ = 0;
    bool shortTold_ = false;
    bool hourTold_ = false;
};

class DiskWatch {
  public:
    DiskWatch() = default;
    ~DiskWatch() { stop(); }
    DiskWatch(const DiskWatch&) = delete;
    DiskWatch& operator=(const DiskWatch&) = delete;

    /// A disk that cannot be asked is not watched. Errors: "cannot start the watch of the disk: REASON".
    Result<void> start(const std::filesystem::path& directory, DiskForecast forecast);
    void stop();

  private:
    void run(const std::filesystem::path& directory, DiskForecast forecast);

    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;  ///< under mutex_
    std::thread thread_;     ///< the owner's
};

}  // namespace lm::storage
