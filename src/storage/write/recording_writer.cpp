#include "storage/write/recording_writer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <string>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "core/durable_file.h"
#include "core/thread.h"
#include "storage/format/recording_events.h"
#include "storage/format/recording_faults.h"
#include "storage/format/recording_meta.h"
#include "storage/write/byte_ring.h"
#include "storage/write/disk_flusher.h"
#include "storage/write/event_file.h"
#include "storage/write/group_writer.h"

namespace lm::storage {
namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kIdleWait{2};
/// Entries taken from the queue between two looks at the clock.
constexpr std::size_t kBatch = 64;
/// The group number has 16 bits in the queue.
constexpr std::size_t kMaxGroups = 65536;
/// How often it is noted how the clock of the timestamps stands to UTC.
constexpr std::int64_t kClockIntervalMs = 60'000;

std::int64_t millisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

/// The directory and its parents as far as they are not there, the outermost first.
std::vector<fs::path> missingDirectories(const fs::path& directory) {
    std::vector<fs::path> missing;
    std::error_code failure;
    for (fs::path at = directory; !at.empty() && !fs::exists(at, failure); at = at.parent_path())
        missing.push_back(at);
    std::reverse(missing.begin(), missing.end());
    return missing;
}

Result<void> removeFile(const fs::path& path) {
    std::error_code failure;
    fs::remove(path, failure);
    if (!failure) return {};
    return Error::fromErrno(failure.value(), "cannot remove " + path.string());
}

}  // namespace

struct RecordingWriter::State {
    State(const fs::path& directory, RecordingInfo recording, const WriterOptions& options)
        : path(directory),
          info(std::move(recording)),
          flushIntervalMs(options.flushIntervalMs),
          ring(options.queueBytes),
          faults(directory) {}

    Result<void> prepare();
    Result<void> makeDirectory();
    Result<void> checkGroups() const;
    Result<void> startThread();
    void stopThread();
    Result<void> removeNewFiles();

    void run();
    bool takeBatch();
    void takeNotes();
    void noteClocks();
    void flushAll();
    bool waitForMore();

    // Constant after create().
    const fs::path path;
    const RecordingInfo info;
    const std::int64_t flushIntervalMs;
    std::vector<fs::path> madeDirectories;  ///< the outermost first
    bool madeMeta = false;

    // Safe from any thread.
    ByteRing ring;
    RecordingCounters counters;

    // The file thread's while it runs.
    RecordingFaults faults;
    std::vector<GroupWriter> groups;
    std::optional<EventFile> events;
    DiskFlusher flusher;  ///< ends before the files that it borrows
    Clock::time_point lastFlush = Clock::now();
    Clock::time_point lastClocks = lastFlush;

    std::mutex noteMutex;
    std::vector<std::string> notes;  ///< under noteMutex: lines for `events`

    // The owner's.
    std::thread thread;

    std::mutex stopMutex;
    std::condition_variable stopChanged;
    bool stopping = false;  ///< under stopMutex
};

// --- Making the recording

Result<void> RecordingWriter::State::prepare() {
    if (ring.capacity() == 0) {
        return Error{ErrorCode::ioError, "not enough memory for the recording queue"};
    }
    if (auto made = makeDirectory(); !made) return made;
    if (auto fit = checkGroups(); !fit) return fit;
    MetaFile meta(path);
    if (auto staged = meta.stage(info); !staged) return staged;
    for (std::size_t i = 0; i < info.groups.size(); ++i) {
        auto files = GroupWriter::create(i, info.groups[i], faults, counters);
        if (!files) return files.error();
        groups.push_back(std::move(files).value());
    }
    auto made = EventFile::create(info, faults);
    if (!made) return made.error();
    events.emplace(std::move(made).value());
    // What says that there is a recording comes last: a crash before leaves none, a crash after a whole one.
    if (const int failure = flushDirectoryToDisk(path); failure != 0) {
        return Error::fromErrno(failure, "cannot write " + path.string());
    }
    auto committed = meta.commit();
    madeMeta = meta.isInPlace();
    if (!committed) return committed;
    return startThread();
}

Result<void> RecordingWriter::State::makeDirectory() {
    std::error_code failure;
    const auto failed = [this](int reason) {
        return Error::withReasonAsHint(codeFromErrno(reason), reason, "cannot create " + path.string());
    };
    for (const fs::path& directory : missingDirectories(path)) {
        const bool made = fs::create_directory(directory, failure);
        if (failure) return failed(failure.value());
        if (made) madeDirectories.push_back(directory);
    }
    if (!fs::is_directory(path, failure)) return failed(failure ? failure.value() : ENOTDIR);
    for (const fs::path& directory : madeDirectories) {
        const fs::path parent = directory.has_parent_path() ? directory.parent_path() : ".";
        if (const int lost = flushDirectoryToDisk(parent); lost != 0) return failed(lost);
    }
    return {};
}

Result<void> RecordingWriter::State::checkGroups() const {
    if (info.groups.size() > kMaxGroups) return Error{ErrorCode::invalidArgument, "too many groups"};
    for (const GroupInfo& group : info.groups) {
        if (group.recordSize > kMaxRecordSize) {
            return Error{ErrorCode::invalidArgument, group.name + ": record too large"};
        }
        if (auto placed = checkSignalPlaces(group); !placed) return placed;
    }
    return {};
}

Result<void> RecordingWriter::State::startThread() {
    std::vector<int> files;
    for (const GroupWriter& group : groups)
        files.push_back(group.recordDescriptor());
    files.push_back(events->file().descriptor());
    if (auto flushing = flusher.start(std::move(files)); !flushing) return flushing;
    auto started = lm::startThread("cannot start the recording thread", [this] { run(); });
    if (!started) {
        flusher.stop();
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
        if (millisecondsSince(lastFlush) >= flushIntervalMs) flushAll();
        if (emptied) more = waitForMore();
    }
    flusher.stop();
    if (flusher.failed()) faults.reportWriteError();
    // After all writes the disk can take them together.
    for (GroupWriter& group : groups)
        group.flush();
    noteClocks();
    takeNotes();
    for (GroupWriter& group : groups)
        group.close();
    events->close();
}

/// Lines go to the file as they come, and from there to the disk without waiting for the next flush.
void RecordingWriter::State::takeNotes() {
    std::vector<std::string> lines;
    {
        const std::scoped_lock lock(noteMutex);
        lines.swap(notes);
    }
    if (lines.empty()) return;
    for (const std::string& line : lines)
        events->append(line);
    if (events->flush()) flusher.request();
}

void RecordingWriter::State::noteClocks() {
    const auto ns = [](auto sinceEpoch) {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
    };
    lastClocks = Clock::now();
    const std::int64_t utcNs = ns(std::chrono::system_clock::now().time_since_epoch());
    const std::scoped_lock lock(noteMutex);
    notes.push_back(clockLine({ns(lastClocks.time_since_epoch()), utcNs}));
}

/// False when the queue was found empty.
bool RecordingWriter::State::takeBatch() {
    for (std::size_t i = 0; i < kBatch; ++i) {
        const auto entry = ring.front();
        if (!entry) return false;
        groups[entry->group].append(entry->timestampNs, entry->data);
        ring.pop();
    }
    return true;
}

void RecordingWriter::State::flushAll() {
    for (GroupWriter& group : groups)
        group.flush();
    if (millisecondsSince(lastClocks) >= kClockIntervalMs) noteClocks();
    events->flush();
    flusher.request();
    if (flusher.failed()) faults.reportWriteError();
    lastFlush = Clock::now();
}

/// False when the queue is empty and stays so.
bool RecordingWriter::State::waitForMore() {
    ring.rewind();
    std::unique_lock lock(stopMutex);
    const bool stop = stopChanged.wait_for(lock, kIdleWait, [this] { return stopping; });
    return !stop || ring.front().has_value();
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

Result<void> RecordingWriter::State::removeNewFiles() {
    Result<void> result;
    std::vector<fs::path> files;
    for (const GroupWriter& group : groups) {
        for (fs::path& file : group.newFiles())
            files.push_back(std::move(file));
    }
    if (events && events->file().isNew()) files.push_back(events->file().path());
    if (std::exchange(madeMeta, false)) files.push_back(path / kMetaFileName);
    for (const fs::path& file : files) {
        auto removed = removeFile(file);
        if (!removed && result) result = std::move(removed);
    }
    groups.clear();
    events.reset();
    // rmdir leaves a directory with somebody else's files alone.
    for (; !madeDirectories.empty(); madeDirectories.pop_back())
        ::rmdir(madeDirectories.back().c_str());
    return result;
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
                                                                 WriterOptions options) {
    auto state = std::make_unique<State>(path, std::move(info), options);
    if (auto prepared = state->prepare(); !prepared) {
        auto removed = state->removeNewFiles();
        static_cast<void>(removed);  // the first error says what to mend
        return prepared.error();
    }
    return std::unique_ptr<RecordingWriter>(new RecordingWriter(std::move(state)));
}

RecordingWriter::RecordingWriter(std::unique_ptr<State> state) : state_(std::move(state)) {}

RecordingWriter::~RecordingWriter() {
    state_->stopThread();
}

bool RecordingWriter::write(std::size_t groupIndex, std::int64_t timestampNs, const std::uint8_t* data,
                            std::size_t length) {
    const std::vector<GroupInfo>& groups = state_->info.groups;
    if (groupIndex < groups.size() && length == groups[groupIndex].recordSize &&
        state_->ring.push(static_cast<std::uint16_t>(groupIndex), timestampNs, data, length)) {
        return true;
    }
    state_->counters.recordsDropped.fetch_add(1, std::memory_order_relaxed);
    return false;
}

void RecordingWriter::note(std::string line) {
    const std::scoped_lock lock(state_->noteMutex);
    state_->notes.push_back(std::move(line));
}

Result<void> RecordingWriter::close() {
    state_->stopThread();
    if (!state_->faults.writeFailed()) return {};
    return Error{ErrorCode::ioError, "write error in " + state_->path.string()};
}

Result<void> RecordingWriter::discard() {
    state_->stopThread();
    return state_->removeNewFiles();
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
