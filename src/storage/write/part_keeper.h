// What becomes of the closed parts of a series: each is cared for (checked, exported), one after the other
// and only with what processor and disk have left; the oldest ones go when more is kept than is allowed, and
// before them those that earlier runs have left of the same ECU in the same folder.
//
// Threads: add(), look() and removeOldest() from any; start() and finish() belong to the owner. The care runs
// on a thread "rec-care". Lifetime: the care is borrowed; finish() or the destructor ends the thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/result.h"

namespace lm::storage {

/// What is kept of a series; 0: all.
struct KeepRule {
    std::uint64_t bytes = 0;
    std::chrono::nanoseconds time{0};  ///< since a part has ended

    bool any() const { return bytes != 0 || time.count() != 0; }
};

class RecordingReader;

/// What is to be done with a closed recording.
class ICareForParts {
  public:
    virtual ~ICareForParts() = default;
    /// Does it; returns the files that it made, which go with the recording.
    virtual std::vector<std::filesystem::path> careFor(const std::filesystem::path& recording) = 0;
    /// Those that it would make.
    virtual std::vector<std::filesystem::path> filesOf(const RecordingReader& recording) const = 0;
};

/// Removes a closed part and the directory, unless something else is in it; nothing when it is no part of the
/// series. False then, or when something of it could not be removed, which has been logged.
bool removePart(const std::filesystem::path& directory, const std::string& series);

class PartKeeper {
  public:
    struct Series {
        std::string id;
        std::string ecu;
        std::filesystem::path folder;  ///< of its parts, and of those of earlier series
    };

    /// `onRemoved` is called with the name of each part that has gone. `care` may be null.
    PartKeeper(Series series, KeepRule rule, ICareForParts* care,
               std::function<void(const std::string&)> onRemoved)
        : series_(std::move(series)), rule_(rule), care_(care), onRemoved_(std::move(onRemoved)) {}
    ~PartKeeper() { finish(); }
    PartKeeper(const PartKeeper&) = delete;
    PartKeeper& operator=(const PartKeeper&) = delete;

    /// Error: "cannot start the care for closed parts: REASON".
    Result<void> start();

    /// A part that is closed.
    void add(const std::filesystem::path& part);
    /// Removes what is not kept; `bytes` are those of the part that is being written.
    void look(std::uint64_t bytes);
    /// Removes the oldest part that has been cared for, whatever is allowed. False when there is none.
    bool removeOldest(const std::string& reason);

    /// Cares for what is left and ends. Idempotent.
    void finish();

  private:
    struct Part {
        std::filesystem::path path;
        std::string series;
        std::vector<std::filesystem::path> exports;
        std::uint64_t bytes = 0;
        std::chrono::steady_clock::time_point ended;
        bool isFree = false;  ///< cared for
    };

    void run();
    void findEarlier();
    void careForOne(std::unique_lock<std::mutex>& lock, Part& part);
    bool removeFirst(const std::string& reason);

    const Series series_;
    const KeepRule rule_;
    ICareForParts* const care_;
    const std::function<void(const std::string&)> onRemoved_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Part> parts_;  ///< under mutex_: the oldest first; only free ones at the front go
    bool ending_ = false;     ///< under mutex_
    std::thread thread_;      ///< the owner's
};

/// Bytes of the files in a directory and below it, of those that can be asked.
std::uint64_t directoryBytes(const std::filesystem::path& directory);

}  // namespace lm::storage
