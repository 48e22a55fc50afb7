#include "watch/take_recorder.h"

#include <algorithm>
#include <pthread.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

#include "core/text.h"
#include "core/thread.h"
#include "storage/format/recording_events.h"
#include "storage/format/recording_meta.h"

namespace lm::watch {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds kIdleWait{5};
constexpr std::size_t kBatchBytes = std::size_t{256} << 10U;
/// Of records under way to the files: far less than the queue of a recording takes.
constexpr std::uint64_t kMostUnderWay = std::uint64_t{24} << 20U;
constexpr std::string_view kTakePrefix = "take";

/// For the time before a trigger, and for some seconds in which files are made or closed.
std::uint64_t memoryFor(const storage::RecordingInfo& info, std::chrono::nanoseconds pre) {
    constexpr double kLeast = 16.0 * (1U << 20U);
    constexpr double kMost = 1024.0 * (1U << 20U);
    constexpr double kSpareSeconds = 5;
    const double seconds = std::chrono::duration<double>(pre).count() + kSpareSeconds;
    // What the disk needs for levels and index makes up for headers and for events without a cycle.
    return static_cast<std::uint64_t>(
        std::clamp(2 * storage::expectedBytesPerSecond(info) * seconds, kLeast, kMost));
}

/// The number of "take017"; 0 of all else.
std::size_t takeNumber(const std::string& name) {
    if (!std::string_view(name).starts_with(kTakePrefix)) return 0;
    const auto number =
        parseUnsigned(std::string_view(name).substr(kTakePrefix.size()), NumberBase::decimal, 999'999'999);
    return number ? number.value() : 0;
}

}  // namespace

// --- The owner's side

Result<void> TakeRecorder::prepareDirectory() {
    std::error_code failure;
    madeDirectory_ = fs::create_directories(options_.directory, failure);
    const std::string name = options_.directory.string();
    if (failure) return Error::fromErrno(failure.value(), "cannot create " + name);
    if (fs::exists(options_.directory / storage::kMetaFileName, failure))
        return Error{ErrorCode::alreadyOpen, name + " already contains a recording"};
    if (::access(name.c_str(), W_OK) != 0) return Error::fromErrno(errno, "cannot write to " + name);
    for (fs::directory_iterator at(options_.directory, failure), end; !failure && at != end;
         at.increment(failure))
        firstNumber_ = std::max(firstNumber_, takeNumber(at->path().filename().string()) + 1);
    if (failure) return Error::fromErrno(failure.value(), "cannot read " + name);
    return {};
}

Result<void> TakeRecorder::begin() {
    if (auto prepared = prepareDirectory(); !prepared) return prepared;
    const std::uint64_t bytes = memoryFor(describe_(options_.directory), options_.pre);
    memory_.emplace(bytes);
    if (memory_->capacity() == 0)
        return Error{ErrorCode::ioError, "not enough memory for the " + formatSize(bytes) +
                                             " that the time before a trigger takes"};
    auto started = startThread("cannot start the thread of the takes", [this] { run(); });
    if (!started) return started.error();
    thread_ = std::move(started).value();
    return {};
}

void TakeRecorder::finish() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        if (open_ != nullptr) {
            open_->take.cutOff = !open_->endNs;
            closeOpen();
        }
        stopping_ = true;
    }
    changed_.notify_one();
    thread_.join();
    // A measurement without a take leaves nothing behind; rmdir leaves what is not empty.
    if (madeDirectory_) ::rmdir(options_.directory.c_str());
}

std::vector<Take> TakeRecorder::takes() const {
    const std::lock_guard lock(mutex_);
    return takes_;
}

// --- Where records come

/// What no take needs any more may go.
RecordMemory::Position TakeRecorder::needed() const {
    RecordMemory::Position least = memory_->end();
    for (const Pending& pending : pending_)
        least = std::min(least, pending.next);
    return least;
}

void TakeRecorder::keep(const xcp::DaqRecord& record) {
    const RecordMemory::Position needed = this->needed();
    const std::int64_t oldestNs = nowNs_ - options_.pre.count();
    while (memory_->begin() < needed && memory_->at(memory_->begin()).timeNs < oldestNs)
        memory_->dropOldest();
    // A quarter stays free for what comes while the files of a take are being made.
    const std::uint64_t most = memory_->capacity() / 4 * 3;
    while (memory_->begin() < needed && memory_->end() - memory_->begin() > most) {
        cutNs_ = memory_->at(memory_->begin()).timeNs;
        memory_->dropOldest();
    }
    const bool kept = memory_->push(record.listIndex, record.timeNs(), record.data, record.size);
    if (kept) return;
    cutNs_ = record.timeNs();
    if (open_ != nullptr) ++open_->take.dropped;
}

void TakeRecorder::open(const xcp::DaqRecord& record, const Fired& fired) {
    Pending pending;
    pending.take.number = ++opened_;
    pending.take.directory =
        options_.directory / fmt::format("{}{:03}", kTakePrefix, firstNumber_ + opened_ - 1);
    pending.take.start = fired.start;
    pending.take.triggerNs = record.timeNs();
    pending.beginNs = record.timeNs() - options_.pre.count();
    pending.take.preCut = cutNs_ >= pending.beginNs;
    pending.next = memory_->begin();
    if (options_.post && !options_.hasStop) pending.endNs = record.timeNs() + options_.post->count();
    pending_.push_back(std::move(pending));
    open_ = &pending_.back();
    changed_.notify_one();
}

void TakeRecorder::closeOpen() {
    std::exchange(open_, nullptr)->end = memory_->end();
}

void TakeRecorder::onRecord(const xcp::DaqRecord& record, const Fired& fired) {
    const std::lock_guard lock(mutex_);
    nowNs_ = std::max(nowNs_, record.timeNs());
    if (open_ != nullptr && open_->endNs && record.timeNs() > *open_->endNs) closeOpen();
    const bool mayOpen = options_.repeat == 0 || opened_ < options_.repeat;
    if (open_ != nullptr) {
        if (fired.start) ++open_->take.triggersInside;
    } else if (!mayOpen) {
        return;
    } else if (fired.start || !options_.hasStart) {
        open(record, fired);
    }
    if (open_ != nullptr && !open_->endNs && fired.stop) {
        open_->take.stop = fired.stop;
        open_->endNs = record.timeNs() + options_.post.value_or(std::chrono::nanoseconds(0)).count();
    }
    keep(record);
}

void TakeRecorder::onState(session::SessionState state, const std::string& message, const std::string& ecu) {
    using session::SessionState;
    const std::lock_guard lock(mutex_);
    const std::int64_t nowNs =
        std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
    const auto open = std::find_if(outages_.begin(), outages_.end(),
                                   [&](const Outage& outage) { return !outage.endNs && outage.ecu == ecu; });
    const bool isOpen = open != outages_.end();
    if (state == SessionState::reconnecting || state == SessionState::failed) {
        if (isOpen) open->outcome = message;
        if (!isOpen && nowNs_ != INT64_MIN)
            outages_.push_back({.beginNs = nowNs_, .reason = message, .ecu = ecu});
    } else if (state == SessionState::measuring && isOpen) {
        open->endNs = nowNs;
        open->outcome = message;
    }
}

void TakeRecorder::note(std::int64_t timeNs, const std::string& line) {
    constexpr std::size_t kMost = 10'000;
    const std::lock_guard lock(mutex_);
    notes_.emplace_back(timeNs, line);
    if (notes_.size() > kMost) notes_.pop_front();
}

// --- The thread of the takes

void TakeRecorder::run() {
    pthread_setname_np(pthread_self(), "take-writer");
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
        if (pending_.empty()) return;
        Pending& oldest = pending_.front();  // others are added behind it meanwhile
        lock.unlock();
        record(oldest);
        lock.lock();
        takes_.push_back(std::move(oldest.take));
        pending_.pop_front();
        complete_ = options_.repeat != 0 && takes_.size() >= options_.repeat;
    }
}

/// Of its oldest record in the memory.
std::int64_t TakeRecorder::firstTimeOf(const Pending& pending) const {
    const std::lock_guard lock(mutex_);
    for (auto at = pending.next; at < memory_->end();) {
        const RecordMemory::Entry entry = memory_->at(at);
        if (entry.timeNs >= pending.beginNs) return entry.timeNs;
        at = entry.next;
    }
    return pending.take.triggerNs;
}

/// False when there is nothing more to come.
bool TakeRecorder::takeBatch(Pending& pending, Batch& batch) {
    batch.records.clear();
    batch.bytes.clear();
    const std::lock_guard lock(mutex_);
    const RecordMemory::Position end = pending.end.value_or(memory_->end());
    while (pending.next < end && batch.bytes.size() < kBatchBytes) {
        const RecordMemory::Entry entry = memory_->at(pending.next);
        pending.next = entry.next;
        if (entry.timeNs < pending.beginNs) continue;
        batch.records.push_back({entry.group, entry.timeNs, batch.bytes.size(), entry.size});
        batch.bytes.insert(batch.bytes.end(), entry.data, entry.data + entry.size);
    }
    return pending.next < end || !pending.end;
}

void TakeRecorder::write(Pending& pending, storage::Recorder& recorder, const storage::GroupRange& groups) {
    Batch batch;
    std::uint64_t given = 0;
    std::uint64_t largest = 1;
    for (bool more = true; more;) {
        more = takeBatch(pending, batch);
        for (const Batch::Record& record : batch.records) {
            largest = std::max<std::uint64_t>(largest, record.size + 24);
            groups.write(record.group, record.timeNs, batch.bytes.data() + record.offset, record.size);
            ++given;
            pending.take.lastNs = std::max(pending.take.lastNs, record.timeNs);
        }
        while ((given - recorder.recordsWritten() - recorder.recordsDropped()) * largest > kMostUnderWay)
            std::this_thread::sleep_for(kIdleWait);
        if (more && batch.records.empty()) std::this_thread::sleep_for(kIdleWait);
    }
}

/// Returns how many records that were.
std::uint64_t TakeRecorder::skip(Pending& pending) {
    Batch batch;
    std::uint64_t missed = 0;
    for (bool more = true; more;) {
        more = takeBatch(pending, batch);
        missed += batch.records.size();
        if (more && batch.records.empty()) std::this_thread::sleep_for(kIdleWait);
    }
    return missed;
}

void TakeRecorder::noteEvents(const Take& take, const storage::GroupRange& groups) const {
    const std::lock_guard lock(mutex_);
    for (const Outage& outage : outages_) {
        const bool overlaps =
            outage.beginNs >= take.firstNs &&
            (outage.beginNs < take.lastNs || (take.cutOff && outage.beginNs == take.lastNs));
        if (!overlaps) continue;
        const auto note = [&](const std::string& line) { groups.note(storage::lineOfEcu(line, outage.ecu)); };
        note(storage::outageBeginLine(outage.beginNs, outage.reason));
        note(storage::outageEndLine(outage.endNs.value_or(nowNs_), outage.endNs.has_value(),
                                    outage.outcome.empty() ? "the measurement ended" : outage.outcome));
    }
    for (const auto& [timeNs, line] : notes_) {
        if (timeNs >= take.firstNs && timeNs <= take.lastNs) groups.note(line);
    }
}

/// The receive thread goes on changing the take meanwhile.
void TakeRecorder::tellBegun(const Pending& pending) {
    std::unique_lock lock(mutex_);
    const Take take = pending.take;
    lock.unlock();
    listener_.onTakeBegun(take);
}

void TakeRecorder::record(Pending& pending) {
    Take& take = pending.take;
    take.firstNs = take.lastNs = firstTimeOf(pending);
    storage::RecordingInfo info = describe_(take.directory);
    info.startUtcNs -= info.startHostNs - take.firstNs;
    info.startHostNs = take.firstNs;
    std::vector<storage::GroupInfo> groups = std::exchange(info.groups, {});
    storage::Recorder recorder(std::move(info));
    const storage::GroupRange range = recorder.add(std::move(groups));
    storage::RecordingPlace place;
    place.directory = take.directory;
    place.companions = companions_;
    if (auto begun = recorder.begin(place, storage::DiskForecast::Seconds(0)); !begun) {
        take.error = begun.error();
        tellBegun(pending);
        const std::uint64_t missed = skip(pending);
        take.dropped += missed;
        listener_.onTakeEnded(take);
        return;
    }
    tellBegun(pending);
    write(pending, recorder, range);
    noteEvents(take, range);
    if (auto closed = recorder.close(); !closed) take.error = closed.error();
    take.recorded = recorder.recordsWritten();
    take.dropped += recorder.recordsDropped();
    listener_.onTakeEnded(take);
}

}  // namespace lm::watch
