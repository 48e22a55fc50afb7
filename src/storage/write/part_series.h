// A recording in parts: watches how long and how large the part that is being written has become, prepares
// the next one and lets the writer go on in it. No record waits for that.
//
// Threads: start() and stop() belong to the owner, count() may be called from any; a thread "rec-parts" does
// the rest. Lifetime: borrows the writer and the keeper, which outlive it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "core/result.h"
#include "storage/write/part_keeper.h"
#include "storage/write/part_names.h"
#include "storage/write/recording_writer.h"

namespace lm::storage {

/// When a part ends; 0: not for that.
struct SplitRule {
    std::chrono::nanoseconds time{0};
    std::uint64_t bytes = 0;

    bool any() const { return time.count() != 0 || bytes != 0; }
};

class PartSeries {
  public:
    struct Plan {
        RecordingInfo info;  ///< of the part that is being written
        std::filesystem::path path;
        PartNames names;
        SplitRule split;
        KeepRule keep;
        std::vector<CompanionFile> companions;
    };

    PartSeries(RecordingWriter& writer, PartKeeper& keeper, Plan plan);
    ~PartSeries() { stop(); }
    PartSeries(const PartSeries&) = delete;
    PartSeries& operator=(const PartSeries&) = delete;

    /// Error: "cannot start the watch of the parts: REASON".
    Result<void> start();
    /// The part that is being written is the last one.
    void stop();

    /// Of the parts so far, with the one that is being written. From any thread.
    std::uint64_t count() const { return count_.load(); }

    // After stop().
    const std::filesystem::path& lastPart() const { return plan_.path; }
    /// The first part with a write that failed, of those before the last.
    const std::optional<std::filesystem::path>& failedPart() const { return failed_; }

  private:
    using Clock = std::chrono::steady_clock;

    void run();
    bool isDue() const;
    Result<void> split();
    void trySplit();
    void makeRoom();

    RecordingWriter& writer_;
    PartKeeper& keeper_;

    // The thread's while it runs.
    Plan plan_;
    Clock::time_point due_;      ///< when the part has lasted long enough
    Clock::time_point retryAt_;  ///< not before, after a failure
    bool failureTold_ = false;
    std::uint64_t recordsBefore_ = 0;  ///< in the parts before
    std::optional<std::filesystem::path> failed_;

    std::atomic<std::uint64_t> count_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;  ///< under mutex_
    std::thread thread_;     ///< the owner's
};

}  // namespace lm::storage
