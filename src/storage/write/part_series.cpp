#include "storage/write/part_series.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <sys/statvfs.h>
#include <utility>

#include "core/log.h"
#include "core/platform.h"
#include "core/thread.h"

namespace lm::storage {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kBetweenLooks{100};
constexpr std::chrono::seconds kBetweenTries{5};

std::int64_t nanoseconds(auto sinceEpoch) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
}

/// So little room that the next second of records may find none.
bool isNearlyFull(const fs::path& directory) {
    struct statvfs disk {};
    if (::statvfs(directory.c_str(), &disk) != 0) return false;
    constexpr std::uint64_t kReserve = std::uint64_t{64} << 20U;
    const std::uint64_t free = std::uint64_t{disk.f_bavail} * disk.f_frsize;
    const std::uint64_t whole = std::uint64_t{disk.f_blocks} * disk.f_frsize;
    return free < std::min(kReserve, whole / 20);
}

}  // namespace

PartSeries::PartSeries(RecordingWriter& writer, PartKeeper& keeper, Plan plan)
    : writer_(writer),
      keeper_(keeper),
      plan_(std::move(plan)),
      due_(Clock::now() + plan_.split.time),
      count_(plan_.info.part->number) {}

Result<void> PartSeries::start() {
    auto started = startThread("cannot start the watch of the parts", [this] { run(); });
    if (!started) return started.error();
    thread_ = std::move(started).value();
    return {};
}

void PartSeries::stop() {
    {
        const std::scoped_lock lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
}

void PartSeries::run() {
    pthread_setname_np(pthread_self(), "rec-parts");
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, kBetweenLooks, [this] { return stopping_; })) {
        lock.unlock();
        makeRoom();
        if (isDue()) trySplit();
        lock.lock();
    }
}

/// A part without a record is not worth an end: no one would miss anything in it.
bool PartSeries::isDue() const {
    const auto now = Clock::now();
    if (now < retryAt_ || writer_.recordsWritten() == recordsBefore_) return false;
    if (plan_.split.time.count() != 0 && now >= due_) return true;
    return plan_.split.bytes != 0 && directoryBytes(plan_.path) >= plan_.split.bytes;
}

void PartSeries::makeRoom() {
    if (!plan_.keep.any()) return;
    keeper_.look(directoryBytes(plan_.path));
    if (isNearlyFull(plan_.names.folder())) keeper_.removeOldest("the disk is nearly full");
}

void PartSeries::trySplit() {
    const auto done = split();
    if (done) {
        failureTold_ = false;
        return;
    }
    const bool isFull = done.error().sysErrno == ENOSPC || done.error().sysErrno == EDQUOT;
    if (isFull && plan_.keep.any() && keeper_.removeOldest("the disk is full")) return;
    retryAt_ = Clock::now() + kBetweenTries;
    if (std::exchange(failureTold_, true)) return;
    log::error("recording: the next part cannot begin: {}; {} goes on, tried again every {} s",
               done.error().text(), plan_.path.string(), kBetweenTries.count());
}

Result<void> PartSeries::split() {
    RecordingInfo info = plan_.info;
    info.startUtcNs = nanoseconds(std::chrono::system_clock::now().time_since_epoch());
    info.startHostNs = nanoseconds(Clock::now().time_since_epoch());
    info.utcOffsetMinutes = utcOffsetMinutes(info.startUtcNs);
    info.part->previous = plan_.path.filename().string();
    ++info.part->number;
    auto claimed = plan_.names.claim(info.part->number, info.startUtcNs);
    if (!claimed) return claimed.error();
    const fs::path path = claimed.value().path;
    info.name = path.filename().string();
    auto next = writer_.prepareNext(path, info, plan_.companions);
    if (!next) return next.error();
    const std::unique_ptr<RecordingFiles> before = writer_.continueIn(std::move(next).value());
    // Without drift; what was missed while there was nothing to end is not made up for.
    due_ = std::max(due_ + plan_.split.time, Clock::now() + plan_.split.time / 2);
    before->close();
    recordsBefore_ = writer_.recordsWritten();
    if (before->writeFailed() && !failed_) failed_ = before->path();
    plan_.info = std::move(info);
    plan_.path = path;
    count_ = plan_.info.part->number;
    keeper_.add(before->path());
    return {};
}

}  // namespace lm::storage
