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

/// Reads without the lock: what is between a take's next record and an end of the memory that was seen under
/// the lock stays as it is until that next record moves on.
class TakeRecorder::Source final : public storage::IRecordSource {
  public:
    Source(TakeRecorder& takes, Pending& pending)
        : takes_(takes),
          pending_(pending),
          memory_(*takes.memory_),
          lastNs_(pending.take.firstNs),
          at_(pending.next),
          freed_(at_),
          end_(at_) {}

    std::optional<storage::QueuedRecord> front() override {
        while (at_ < end_ || look()) {
            const RecordMemory::Entry entry = memory_.at(at_);
            next_ = entry.next;
            if (entry.timeNs >= pending_.beginNs) {
                lastNs_ = std::max(lastNs_, entry.timeNs);
                return storage::QueuedRecord{static_cast<std::uint16_t>(entry.group), entry.timeNs,
                                             entry.data, entry.size};
            }
            pop();
        }
        return std::nullopt;
    }

    void pop() override {
        // Now and then is enough, and costs little: the place of what was read is wanted for others.
        constexpr std::uint64_t kPortion = std::uint64_t{64} << 10U;
        at_ = next_;
        if (at_ - freed_ >= kPortion) look();
    }

    /// There is nothing more to come.
    bool isOver() const {
        const std::lock_guard lock(takes_.mutex_);
        return takes_.isOver(pending_);
    }

  private:
    /// Gives back what was read; false when there is nothing new.
    bool look() {
        const std::lock_guard lock(takes_.mutex_);
        at_ = std::max(at_, memory_.begin());  // nothing of this take goes, but an empty memory begins again
        pending_.next = freed_ = at_;
        pending_.take.lastNs = lastNs_;
        end_ = pending_.end.value_or(memory_.end());
        if (takes_.isOver(pending_)) takes_.changed_.notify_one();
        return at_ < end_;
    }

    TakeRecorder& takes_;
    Pending& pending_;
    const RecordMemory& memory_;
    std::int64_t lastNs_;
    RecordMemory::Position at_;
    RecordMemory::Position next_ = 0;
    RecordMemory::Position freed_;
    RecordMemory::Position end_;  ///< up to here it may be read
};

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
    for (const Pending& pending : pending_) {
        if (!isOver(pending)) least = std::min(least, pending.next);
    }
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
    if (options_.post && options_.stops.empty()) pending.endNs = record.timeNs() + options_.post->count();
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
    } else if (fired.start || options_.starts.empty()) {
        open(record, fired);
    }
    if (open_ != nullptr && !open_->endNs && fired.stop) {
        open_->take.stop = fired.stop;
        open_->take.stopNs = record.timeNs();
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
    const std::lock_guard lock(mutex_);
    events_.push_back({timeNs, line});
    forgetEvents();
}

/// Those that no take will hold become what is told at the start of one; of very many the oldest go.
void TakeRecorder::forgetEvents() {
    constexpr std::size_t kMost = 10'000;
    const std::int64_t oldestNs = nowNs_ == INT64_MIN ? INT64_MIN : nowNs_ - options_.pre.count();
    while (!events_.empty() &&
           (events_.size() > kMost || (pending_.empty() && events_.front().timeNs < oldestNs))) {
        standing_.take(events_.front().line);
        events_.pop_front();
    }
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
        forgetEvents();
        complete_ = options_.repeat != 0 && takes_.size() >= options_.repeat;
    }
}

/// Of its oldest record in the memory.
std::int64_t TakeRecorder::firstTimeOf(const Pending& pending) const {
    const std::lock_guard lock(mutex_);
    for (auto at = std::max(pending.next, memory_->begin()); at < memory_->end();) {
        const RecordMemory::Entry entry = memory_->at(at);
        if (entry.timeNs >= pending.beginNs) return entry.timeNs;
        at = entry.next;
    }
    return pending.take.triggerNs;
}

/// Returns how many records that were.
std::uint64_t TakeRecorder::skip(Source& source) {
    std::uint64_t missed = 0;
    for (;;) {
        for (; source.front(); source.pop())
            ++missed;
        if (source.isOver()) return missed;
        std::this_thread::sleep_for(kIdleWait);
    }
}

void TakeRecorder::noteBegin(const Take& take, const storage::GroupRange& groups) const {
    const std::lock_guard lock(mutex_);
    storage::StandingEvents standing = standing_;
    for (const Event& event : events_)
        if (event.timeNs < take.firstNs) standing.take(event.line);
    groups.note(standing.beginLines(take.firstNs));
    if (take.start) groups.note(storage::triggerLine({take.triggerNs, true, options_.starts[*take.start]}));
}

void TakeRecorder::noteEnd(const Take& take, const storage::GroupRange& groups) const {
    noteOutages(take, groups);
    const std::lock_guard lock(mutex_);
    for (const Event& event : events_)
        if (event.timeNs >= take.firstNs && (event.timeNs <= take.lastNs || take.cutOff))
            groups.note(event.line);
    if (take.stop) groups.note(storage::triggerLine({take.stopNs, false, options_.stops[*take.stop]}));
}

void TakeRecorder::noteOutages(const Take& take, const storage::GroupRange& groups) const {
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
    Source source(*this, pending);
    storage::Recorder recorder(std::move(info));
    const storage::GroupRange range = recorder.add(std::move(groups));
    storage::RecordingPlace place;
    place.directory = take.directory;
    place.companions = companions_;
    place.source = &source;
    if (auto begun = recorder.begin(place, storage::DiskForecast::Seconds(0)); !begun) {
        take.error = begun.error();
        tellBegun(pending);
        const std::uint64_t missed = skip(source);
        take.dropped += missed;
        listener_.onTakeEnded(take);
        return;
    }
    tellBegun(pending);
    noteBegin(take, range);
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return isOver(pending); });
    }
    noteEnd(take, range);
    if (auto closed = recorder.close(); !closed) take.error = closed.error();
    take.recorded = recorder.recordsWritten();
    take.dropped += recorder.recordsDropped();
    listener_.onTakeEnded(take);
}

}  // namespace lm::watch
