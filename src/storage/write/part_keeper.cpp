#include "storage/write/part_keeper.h"

#include <algorithm>
#include <numeric>
#include <optional>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

#include <spdlog/fmt/fmt.h>

#include "core/durable_file.h"
#include "core/log.h"
#include "core/text.h"
#include "core/thread.h"
#include "storage/format/recording_events.h"
#include "storage/format/recording_meta.h"
#include "storage/format/summary_file.h"
#include "storage/read/recording_parts.h"
#include "storage/read/recording_reader.h"
#include "storage/write/recording_files.h"

namespace lm::storage {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

/// This thread gets what others leave, of processor and disk. Not the least of all: one that hardly ever runs
/// keeps the locks that the system lets it take for all threads. A refusal changes nothing that matters.
void stepBack() {
    constexpr int kNice = 10;
    constexpr int kOfThread = 1;
    constexpr int kIdleClass = 3 << 13;
    const auto self = static_cast<id_t>(::syscall(SYS_gettid));
    static_cast<void>(::setpriority(PRIO_PROCESS, self, kNice));
    static_cast<void>(::syscall(SYS_ioprio_set, kOfThread, self, kIdleClass));
}

std::uint64_t bytesOf(const fs::path& file) {
    std::error_code unknown;
    const std::uint64_t bytes = fs::file_size(file, unknown);
    return unknown ? 0 : bytes;
}

/// The files that a recording of so many groups may have, "meta.json" first: without it, it is none any more.
std::vector<fs::path> filesOf(const fs::path& directory, std::size_t groups) {
    std::vector<fs::path> files = {directory / kMetaFileName, directory / kEventFileName,
                                   directory / kParametersFileName};
    for (std::size_t group = 0; group < groups; ++group) {
        files.push_back(directory / recordFileName(group));
        for (std::size_t number = 0; number <= SummaryFile::kMaxLevel; ++number)
            files.push_back(SummaryFile::path(directory, group, number));
    }
    return files;
}

/// Since the last event of a recording, which is its end; none while a program writes it.
std::optional<Clock::duration> ageOf(const RecordingReader& recording) {
    if (recording.events().beingWritten) return std::nullopt;
    std::error_code unknown;
    const auto last = fs::last_write_time(recording.directory() / kEventFileName, unknown);
    if (unknown) return Clock::duration(0);
    const auto age = fs::file_time_type::clock::now() - last;
    return std::max(std::chrono::duration_cast<Clock::duration>(age), Clock::duration(0));
}

}  // namespace

std::uint64_t directoryBytes(const fs::path& directory) {
    std::uint64_t size = 0;
    std::error_code failure;
    for (fs::recursive_directory_iterator entry(directory, failure), end; !failure && entry != end;
         entry.increment(failure)) {
        std::error_code unknown;
        if (entry->is_regular_file(unknown)) size += bytesOf(entry->path());
    }
    return size;
}

bool removePart(const fs::path& directory, const std::string& series) {
    std::error_code failure;
    if (fs::is_symlink(directory, failure)) return false;
    const auto recording = RecordingReader::open(directory);
    if (!recording || !recording.value().info().part || recording.value().info().part->series != series)
        return false;
    for (const fs::path& file : filesOf(directory, recording.value().info().groups.size())) {
        std::error_code why;
        fs::remove(file, why);
        if (!why) continue;
        log::error("recording: cannot remove {}: {}", file.string(), why.message());
        return false;
    }
    if (::rmdir(directory.c_str()) != 0)
        log::warn("recording: {} stays: something else is in it", directory.string());
    static_cast<void>(flushDirectoryToDisk(directory.parent_path()));
    return true;
}

Result<void> PartKeeper::start() {
    auto started = startThread("cannot start the care for closed parts", [this] { run(); });
    if (!started) return started.error();
    thread_ = std::move(started).value();
    return {};
}

void PartKeeper::add(const fs::path& part) {
    const std::scoped_lock lock(mutex_);
    parts_.push_back({part, series_.id, {}, directoryBytes(part), Clock::now(), care_ == nullptr});
    constexpr std::ptrdiff_t kTellWaiting = 10;
    const auto waiting =
        std::count_if(parts_.begin(), parts_.end(), [](const Part& one) { return !one.isFree; });
    if (waiting == kTellWaiting)
        log::warn(
            "recording: {} closed parts wait to be checked or exported, which takes longer than recording "
            "them",
            waiting);
    changed_.notify_one();
}

void PartKeeper::look(std::uint64_t bytes) {
    const std::scoped_lock lock(mutex_);
    // Of a series that has ended its last part stays, whatever the rule says.
    const std::size_t fewest = ending_ ? 1 : 0;
    while (rule_.bytes != 0 && parts_.size() > fewest) {
        const std::uint64_t kept =
            std::accumulate(parts_.begin(), parts_.end(), bytes,
                            [](std::uint64_t sum, const Part& part) { return sum + part.bytes; });
        if (kept <= rule_.bytes ||
            !removeFirst(fmt::format("more than {} are kept", formatSize(rule_.bytes))))
            break;
    }
    const auto now = Clock::now();
    while (rule_.time.count() != 0 && parts_.size() > fewest && now - parts_.front().ended > rule_.time) {
        if (!removeFirst("it is older than what is kept")) break;
    }
}

bool PartKeeper::removeOldest(const std::string& reason) {
    const std::scoped_lock lock(mutex_);
    return removeFirst(reason);
}

/// False when there is none that may go.
bool PartKeeper::removeFirst(const std::string& reason) {
    if (parts_.empty() || !parts_.front().isFree) return false;
    const Part part = std::move(parts_.front());
    parts_.pop_front();
    if (!removePart(part.path, part.series)) {
        log::warn("recording: {} is not removed: it is no longer the part that it was", part.path.string());
        return true;
    }
    for (const fs::path& file : part.exports) {
        std::error_code ignored;
        fs::remove(file, ignored);
    }
    log::warn("recording: {} removed: {}", part.path.string(), reason);
    onRemoved_(part.path.filename().string());
    return true;
}

void PartKeeper::finish() {
    {
        const std::scoped_lock lock(mutex_);
        ending_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
    look(0);
}

void PartKeeper::run() {
    pthread_setname_np(pthread_self(), "rec-care");
    stepBack();
    if (rule_.any()) findEarlier();
    std::unique_lock lock(mutex_);
    for (;;) {
        // The front may go meanwhile, but only free parts do; references of a deque survive that.
        const auto next =
            std::find_if(parts_.begin(), parts_.end(), [](const Part& part) { return !part.isFree; });
        if (next != parts_.end()) {
            careForOne(lock, *next);
        } else if (ending_) {
            return;
        } else {
            changed_.wait(lock);
        }
    }
}

/// What earlier runs have left counts, too: a service that starts again and again would fill the disk.
void PartKeeper::findEarlier() {
    const auto found = findParts(series_.folder, series_.ecu);
    if (!found) return log::warn("recording: parts of earlier runs stay: {}", found.error().text());
    std::deque<Part> earlier;
    for (const RecordingReader& recording : found.value()) {
        const std::string& series = recording.info().part->series;
        const auto age = series == series_.id ? std::nullopt : ageOf(recording);
        if (!age) continue;
        Part part{recording.directory(), series, {}, directoryBytes(recording.directory()),
                  Clock::now() - *age,   true};
        if (care_ != nullptr) part.exports = care_->filesOf(recording);
        for (const fs::path& file : part.exports)
            part.bytes += bytesOf(file);
        earlier.push_back(std::move(part));
    }
    const std::scoped_lock lock(mutex_);
    for (; !earlier.empty(); earlier.pop_back())
        parts_.push_front(std::move(earlier.back()));
}

void PartKeeper::careForOne(std::unique_lock<std::mutex>& lock, Part& part) {
    const fs::path path = part.path;
    lock.unlock();
    std::vector<fs::path> made = care_->careFor(path);
    lock.lock();
    part.exports = std::move(made);
    for (const fs::path& file : part.exports)
        part.bytes += bytesOf(file);
    part.isFree = true;
}

}  // namespace lm::storage
