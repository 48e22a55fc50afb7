// Records takes: from some seconds before a trigger to some seconds after another one, each a recording of
// its own below one directory.
//
// All records go through a memory of constant size. What is before a trigger comes from there, and what comes
// while the files of a take are being made or closed waits there; so nothing of the next take is lost either.
// The thread that writes a take's files takes its records right out of that memory.
//
// Threads: begin() and finish() belong to the owner; onRecord() where records come, onState() and
// note() from any; the queries from any. A thread named "take-writer" makes and closes the recordings,
// and calls the listener; that of each recording fills it. Lifetime: listener and `describe` are borrowed
// until finish().
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/result.h"
#include "session/session_state.h"
#include "storage/format/recording_events.h"
#include "storage/write/recorder.h"
#include "watch/record_memory.h"
#include "watch/watcher.h"

namespace lm::watch {

struct Take {
    std::size_t number = 1;  ///< of this measurement
    std::filesystem::path directory = {};
    std::optional<std::size_t> start = {};  ///< which trigger; none: the first record
    std::optional<std::size_t> stop = {};   ///< none: its time was over, or the measurement
    bool cutOff = false;                    ///< the measurement ended first
    std::int64_t triggerNs = 0;             ///< these on the clock of the records
    std::int64_t stopNs = 0;                ///< of `stop`
    std::int64_t firstNs = 0;
    std::int64_t lastNs = 0;
    std::uint64_t recorded = 0;
    std::uint64_t dropped = 0;
    bool preCut = false;               ///< the memory did not hold all of the time before the trigger
    std::uint64_t triggersInside = 0;  ///< that fired while it ran
    std::optional<Error> error = {};
};

class ITakeListener {
  public:
    virtual ~ITakeListener() = default;
    /// With `error` its files cannot be made.
    virtual void onTakeBegun(const Take& take) = 0;
    virtual void onTakeEnded(const Take& take) = 0;
};

struct TakeOptions {
    std::filesystem::path directory;
    // Texts of the triggers; without a start the first record begins the only take.
    std::vector<std::string> starts = {};
    std::vector<std::string> stops = {};
    std::chrono::nanoseconds pre{0};
    /// After the stop, or without one after the start; none: not at all, or up to the end.
    std::optional<std::chrono::nanoseconds> post = {};
    std::uint64_t repeat = 1;  ///< 0: as many as come
};

class TakeRecorder {
  public:
    using Describe = std::function<storage::RecordingInfo(const std::filesystem::path&)>;

    /// `companions` go into each recording.
    TakeRecorder(TakeOptions options, Describe describe, ITakeListener& listener,
                 std::vector<storage::CompanionFile> companions = {})
        : options_(std::move(options)),
          describe_(std::move(describe)),
          listener_(listener),
          companions_(std::move(companions)) {}
    /// As finish().
    ~TakeRecorder() { finish(); }
    TakeRecorder(const TakeRecorder&) = delete;
    TakeRecorder& operator=(const TakeRecorder&) = delete;

    /// Errors: "cannot create DIRECTORY: REASON", "DIRECTORY already contains a recording", that there is not
    /// enough memory, "cannot start the thread of the takes: REASON".
    Result<void> begin();

    void onRecord(const xcp::DaqRecord& record, const Fired& fired);
    /// `ecu` is which of several.
    void onState(session::SessionState state, const std::string& message, const std::string& ecu = {});
    /// An event, a line of "events.jsonl", for the takes of that time; the newest one about what runs in the
    /// ECU is told to later takes as well. From any thread.
    void note(std::int64_t timeNs, const std::string& line);

    /// All takes that were asked for are recorded.
    bool isComplete() const { return complete_.load(); }
    /// After the last record: ends a take that is open. Idempotent.
    void finish();

    /// Those that are closed.
    std::vector<Take> takes() const;
    std::uint64_t memoryBytes() const { return memory_ ? memory_->capacity() : 0; }

  private:
    struct Pending {
        Take take;
        std::int64_t beginNs = 0;
        std::optional<std::int64_t> endNs = {};  ///< no later records
        RecordMemory::Position next = 0;         ///< to be written; what is before may go
        std::optional<RecordMemory::Position> end = {};
    };
    struct Outage {
        std::int64_t beginNs = 0;
        std::optional<std::int64_t> endNs = {};
        std::string reason = {};
        std::string outcome = {};
        std::string ecu = {};
    };
    struct Event {
        std::int64_t timeNs;
        std::string line;
    };
    /// The records of a take, for the thread that writes its files.
    class Source;

    Result<void> prepareDirectory();
    void open(const xcp::DaqRecord& record, const Fired& fired);
    void closeOpen();
    void keep(const xcp::DaqRecord& record);
    RecordMemory::Position needed() const;

    void run();
    void record(Pending& pending);
    void tellBegun(const Pending& pending);
    std::int64_t firstTimeOf(const Pending& pending) const;
    bool isOver(const Pending& pending) const { return pending.end && pending.next >= *pending.end; }
    static std::uint64_t skip(Source& source);
    void noteBegin(const Take& take, const storage::GroupRange& groups) const;
    void noteEnd(const Take& take, const storage::GroupRange& groups) const;
    void noteOutages(const Take& take, const storage::GroupRange& groups) const;
    void forgetEvents();

    const TakeOptions options_;
    const Describe describe_;
    ITakeListener& listener_;
    const std::vector<storage::CompanionFile> companions_;
    std::size_t firstNumber_ = 1;  ///< of the directories
    bool madeDirectory_ = false;
    std::thread thread_;
    std::atomic<bool> complete_{false};

    mutable std::mutex mutex_;  // everything below
    std::condition_variable changed_;
    std::optional<RecordMemory> memory_;
    std::deque<Pending> pending_;  ///< the oldest is being written, the newest may be open
    Pending* open_ = nullptr;
    std::uint64_t opened_ = 0;
    std::int64_t nowNs_ = INT64_MIN;
    std::int64_t cutNs_ = INT64_MIN;  ///< of the newest record that had to go for lack of room
    std::vector<Outage> outages_;
    storage::StandingEvents standing_;  ///< of events that were before all takes to come
    std::deque<Event> events_;
    std::vector<Take> takes_;
    bool stopping_ = false;
};

}  // namespace lm::watch
