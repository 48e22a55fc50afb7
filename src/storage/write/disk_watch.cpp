#include "storage/write/disk_watch.h"

#include <algorithm>
#include <pthread.h>
#include <sys/statvfs.h>

#include <spdlog/fmt/fmt.h>

#include "core/log.h"
#include "core/text.h"
#include "core/thread.h"
#include "storage/format/recording_format.h"

namespace lm::storage {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = DiskForecast::Seconds;

constexpr std::chrono::seconds kInterval{5};
constexpr Seconds kHour = std::chrono::hours(1);
/// Shorter than this, the buffers of the system and of others count more than the recording.
constexpr Seconds kMeasuredOver = std::chrono::minutes(1);

std::string aboutText(Seconds time) {
    if (time.count() < 120) return fmt::format("{:.0f} s", time.count());
    if (time < 2 * kHour) return fmt::format("{:.0f} min", time.count() / 60);
    if (time < 48 * kHour) return fmt::format("{:.0f} h", time / kHour);
    return fmt::format("{:.0f} days", time / (24 * kHour));
}

/// Warns when there is something to tell. False when the disk cannot be asked.
bool look(const std::filesystem::path& directory, DiskForecast& forecast, Seconds sinceStart) {
    const auto free = freeDiskBytes(directory);
    if (!free) return false;
    const std::string warning = forecast.look(sinceStart, *free);
    if (!warning.empty()) log::warn("recording: the disk of {} {}", directory.string(), warning);
    return true;
}

}  // namespace

std::optional<std::uint64_t> freeDiskBytes(const std::filesystem::path& path) {
    struct statvfs disk {};
    if (::statvfs(path.c_str(), &disk) != 0) return std::nullopt;
    return std::uint64_t{disk.f_bavail} * disk.f_frsize;
}

double expectedBytesPerSecond(const RecordingInfo& info) {
    double total = 0;
    for (const GroupInfo& group : info.groups) {
        if (group.cycleNs <= 0) continue;
        constexpr double kIndex = 1;                 // 16 bytes for 16 records
        constexpr double kLevelsOfSignal = 8 / 15.;  // 8 bytes for 16 records, for 256, ...
        const double record = kTimestampSize + group.recordSize + kIndex +
                              kLevelsOfSignal * static_cast<double>(group.signals.size());
        total += record * 1e9 / static_cast<double>(group.cycleNs);
    }
    return total;
}

void DiskForecast::measure(Seconds sinceStart, std::uint64_t freeBytes) {
    if (freeThen_ == 0) {
        freeThen_ = freeBytes;
        measuredAt_ = sinceStart;
    }
    const Seconds passed = sinceStart - measuredAt_;
    if (passed < kMeasuredOver) return;
    measured_ = freeThen_ > freeBytes ? static_cast<double>(freeThen_ - freeBytes) / passed.count() : 0;
    freeThen_ = freeBytes;
    measuredAt_ = sinceStart;
}

std::string DiskForecast::look(Seconds sinceStart, std::uint64_t freeBytes) {
    measure(sinceStart, freeBytes);
    const double rate = std::max(expected_, measured_);
    if (rate <= 0) return {};
    const Seconds left(static_cast<double>(freeBytes) / rate);
    const bool isOpen = duration_.count() <= 0;
    const bool tooShort = !isOpen && left < duration_ - sinceStart;
    // Room that came back, or a minute of much writing by others: what was told is no longer so.
    shortTold_ = shortTold_ && tooShort;
    hourTold_ = hourTold_ && left <= 2 * kHour;
    if (!isOpen && !tooShort) return {};
    const bool tellShort = tooShort && !shortTold_;
    const bool tellHour = left < kHour && !hourTold_;
    shortTold_ = shortTold_ || tellShort;
    hourTold_ = hourTold_ || tellHour;
    if (!tellShort && !tellHour) return {};
    return fmt::format("{}is full in about {}, {} are free",
                       tooShort ? "will not hold the measurement: it " : "", aboutText(left),
                       formatSize(freeBytes));
}

Result<void> DiskWatch::start(const std::filesystem::path& directory, DiskForecast forecast) {
    if (!look(directory, forecast, Seconds(0))) return {};
    auto started = startThread("cannot start the watch of the disk", [=, this] { run(directory, forecast); });
    if (!started) return started.error();
    thread_ = std::move(started).value();
    return {};
}

void DiskWatch::stop() {
    {
        const std::scoped_lock lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
}

void DiskWatch::run(const std::filesystem::path& directory, DiskForecast forecast) {
    pthread_setname_np(pthread_self(), "rec-disk");
    const auto start = Clock::now();
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, kInterval, [this] { return stopping_; })) {
        lock.unlock();
        look(directory, forecast, Clock::now() - start);
        lock.lock();
    }
}

}  // namespace lm::storage
