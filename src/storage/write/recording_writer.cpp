#include "storage/write/recording_writer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/log.h"
#include "core/thread.h"
#include "storage/format/recording_events.h"
#include "storage/write/byte_ring.h"

namespace lm::storage {
namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kIdleWait{2};
/// Entries taken from the queue between two looks at the clock.
constexpr std::size_t kBatch = 64;
/// How often it is noted how the clock of the timestamps stands to UTC.
constexpr std::int64_t kClockIntervalMs = 60'000;

ClockPair clocksNow() {
    const auto ns = [](auto sinceEpoch) {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
    };
    return {ns(Clock::now().time_since_epoch()), ns(std::chrono::system_clock::now().time_since_epoch())};
}

std::int64_t millisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace

struct RecordingWriter::State {
    State(const fs::path& directory, const RecordingInfo& recording, const WriterOptions& options)
        : path(directory),
          flushIntervalMs(options.flushIntervalMs),
          ring(options.source != nullptr ? 0 : options.queueBytes),
          source(options.source != nullptr ? *options.source : ring) {
        for (const GroupInfo& group : recording.groups)
            recordSizes.push_back(group.recordSize);
    }

    Result<void> prepare(RecordingInfo info, const WriterOptions& options);
    void stopThread();

    void run();
    bool takeBatch();
    void takeNotes();
    void takeNext();
    void lookAtClocks();
    void noteClocks(const ClockPair& now);
    void flushAll();
    bool waitForMore();
    bool fits(std::size_t group, std::size_t length) const {
        return group < recordSizes.size() && length == recordSizes[group];
    }
    void drop() { counters.recordsDropped.fetch_add(1, std::memory_order_relaxed); }

    // Constant after create().
    const fs::path path;
    std::vector<std::uint32_t> recordSizes;
    const std::int64_t flushIntervalMs;

    // Safe from any thread.
    ByteRing ring;
    IRecordSource& source;  ///< the file thread's
    RecordingCounters counters;

    // The file thread's while it runs.
    std::unique_ptr<RecordingFiles> files;
    Clock::time_point lastFlush = Clock::now();
    Clock::time_point lastClocks = lastFlush;
    ClockPair knownClocks = clocksNow();  ///< at the last look

    std::mutex noteMutex;
    std::vector<std::string> notes;  ///< under noteMutex: lines for the events

    // The owner's.
    std::thread thread;

    std::mutex partMutex;
    std::condition_variable partChanged;
    std::unique_ptr<RecordingFiles> next;    ///< under partMutex: to go on in
    std::unique_ptr<RecordingFiles> before;  ///< under partMutex: the files that it went on from
    std::atomic<bool> hasNext{false};

    std::mutex stopMutex;
    std::condition_variable stopChanged;
    bool stopping = false;  ///< under stopMutex
};

Result<void> RecordingWriter::State::prepare(RecordingInfo info, const WriterOptions& options) {
    if (ring.capacity() == 0) {
        return Error{ErrorCode::ioError, "not enough memory for the recording queue"};
    }
    auto made =
        RecordingFiles::create(path, std::move(info), counters, options.companions, options.newDirectories);
    if (!made) return made.error();
    files = std::move(made).value();
    auto started = lm::startThread("cannot start the recording thread", [this] { run(); });
    if (!started) {
        static_cast<void>(files->remove());
        return started.error();
    }
    thread = std::move(started).value();
    return {};
}

// --- The file thread

void RecordingWriter::State::run() {
    pthread_setname_np(pthread_self(), "rec-writer");
    bool more = true;
    while (more) {
        const bool emptied = !takeBatch();
        takeNotes();
        takeNext();
        if (millisecondsSince(lastFlush) >= flushIntervalMs) flushAll();
        if (emptied) more = waitForMore();
    }
    takeNext();
    noteClocks(clocksNow());
    takeNotes();
    files->close();
}

void RecordingWriter::State::takeNotes() {
    std::vector<std::string> lines;
    {
        const std::scoped_lock lock(noteMutex);
        lines.swap(notes);
    }
    files->note(lines);
}

/// Between two records: what came before is in the files of the part before.
void RecordingWriter::State::takeNext() {
    if (!hasNext.load(std::memory_order_relaxed)) return;
    const ClockPair now = clocksNow();
    noteClocks(now);
    takeNotes();
    const std::scoped_lock lock(partMutex);
    files->continueIn(*next, now.hostNs);
    before = std::exchange(files, std::move(next));
    hasNext = false;
    partChanged.notify_one();
}

/// A step is what no clock that is only slowed down or hurried does between two looks.
void RecordingWriter::State::lookAtClocks() {
    constexpr std::int64_t kLeastStepNs = 100'000'000;
    const ClockPair now = clocksNow();
    const std::int64_t byNs = (now.utcNs - knownClocks.utcNs) - (now.hostNs - knownClocks.hostNs);
    knownClocks = now;
    if (std::abs(byNs) >= kLeastStepNs) {
        log::warn("recording: the system's clock was set by {:+.3f} s", static_cast<double>(byNs) / 1e9);
        const std::scoped_lock lock(noteMutex);
        notes.push_back(clockStepLine({now, byNs}));
    }
    if (millisecondsSince(lastClocks) >= kClockIntervalMs) noteClocks(now);
}

void RecordingWriter::State::noteClocks(const ClockPair& now) {
    lastClocks = Clock::now();
    const std::scoped_lock lock(noteMutex);
    notes.push_back(clockLine(now));
}

/// False when the queue was found empty.
bool RecordingWriter::State::takeBatch() {
    for (std::size_t i = 0; i < kBatch; ++i) {
        const auto record = source.front();
        if (!record) return false;
        if (fits(record->group, record->length)) {
            files->append(record->group, record->timestampNs, record->data);
        } else {
            drop();
        }
        source.pop();
    }
    return true;
}

void RecordingWriter::State::flushAll() {
    lookAtClocks();
    takeNotes();
    files->flush();
    lastFlush = Clock::now();
}

/// False when the queue is empty and stays so.
bool RecordingWriter::State::waitForMore() {
    source.rewind();
    std::unique_lock lock(stopMutex);
    const bool stop = stopChanged.wait_for(lock, kIdleWait, [this] { return stopping; });
    return !stop || source.front().has_value();
}

void RecordingWriter::State::stopThread() {
    ring.close();
    {
        const std::scoped_lock lock(stopMutex);
        stopping = true;
    }
    stopChanged.notify_one();
    if (thread.joinable()) thread.join();
}

// --- The owner's side

std::uint64_t recommendedQueueBytes(const RecordingInfo& info) {
    std::uint64_t largest = 0;
    for (const GroupInfo& group : info.groups)
        largest = std::max<std::uint64_t>(largest, group.recordSize);
    constexpr std::uint64_t kRoundedUp = 3;
    return std::max(WriterOptions{}.queueBytes, 8 * (largest + ByteRing::kEntryHeader + kRoundedUp));
}

Result<std::unique_ptr<RecordingWriter>> RecordingWriter::create(const fs::path& path, RecordingInfo info,
                                                                 const WriterOptions& options) {
    auto state = std::make_unique<State>(path, info, options);
    if (auto prepared = state->prepare(std::move(info), options); !prepared) return prepared.error();
    return std::unique_ptr<RecordingWriter>(new RecordingWriter(std::move(state)));
}

RecordingWriter::RecordingWriter(std::unique_ptr<State> state) : state_(std::move(state)) {}

RecordingWriter::~RecordingWriter() {
    state_->stopThread();
}

bool RecordingWriter::write(std::size_t groupIndex, std::int64_t timestampNs, const std::uint8_t* data,
                            std::size_t length) {
    if (state_->fits(groupIndex, length) &&
        state_->ring.push(static_cast<std::uint16_t>(groupIndex), timestampNs, data, length)) {
        return true;
    }
    state_->drop();
    return false;
}

void RecordingWriter::note(std::string line) {
    const std::scoped_lock lock(state_->noteMutex);
    state_->notes.push_back(std::move(line));
}

std::unique_ptr<RecordingFiles> RecordingWriter::continueIn(std::unique_ptr<RecordingFiles> next) {
    std::unique_lock lock(state_->partMutex);
    state_->next = std::move(next);
    state_->hasNext = true;
    state_->partChanged.wait(lock, [this] { return state_->before != nullptr; });
    return std::move(state_->before);
}

Result<std::unique_ptr<RecordingFiles>> RecordingWriter::prepareNext(
    const fs::path& path, RecordingInfo info, const std::vector<CompanionFile>& companions) {
    return RecordingFiles::create(path, std::move(info), state_->counters, companions, {path});
}

Result<void> RecordingWriter::close() {
    state_->stopThread();
    if (!state_->files || !state_->files->writeFailed()) return {};
    return writeErrorIn(state_->files->path());
}

Result<void> RecordingWriter::discard() {
    state_->stopThread();
    return state_->files->remove();
}

Error RecordingWriter::writeErrorIn(const fs::path& directory) {
    return {ErrorCode::ioError, "write error in " + directory.string()};
}

std::uint64_t RecordingWriter::recordsWritten() const {
    return state_->counters.recordsWritten.load(std::memory_order_relaxed);
}

std::uint64_t RecordingWriter::bytesWritten() const {
    return state_->counters.bytesWritten.load(std::memory_order_relaxed);
}

std::uint64_t RecordingWriter::recordsDropped() const {
    return state_->counters.recordsDropped.load(std::memory_order_relaxed);
}

}  // namespace lm::storage
