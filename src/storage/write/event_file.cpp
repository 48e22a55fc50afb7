#include "storage/write/event_file.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>
#include <utility>

#include <spdlog/spdlog.h>

#include "core/durable_file.h"
#include "storage/format/recording_events.h"
#include "storage/read/raw_file.h"

namespace lm::storage {
namespace {

constexpr std::size_t kMostWaiting = 64 * 1024;

}  // namespace

Result<EventFile> EventFile::create(const RecordingInfo& info, RecordingFaults& faults) {
    std::filesystem::path path = faults.directory() / kEventFileName;
    const auto made = claimForWriting(path);
    if (!made) return made.error();
    EventFile file(path, made.value().descriptor, made.value().isNew, faults);
    const std::string line = startLine(info);
    Written written =
        writeAt(file.descriptor_, 0, reinterpret_cast<const std::uint8_t*>(line.data()), line.size());
    if (written.systemError == 0) written.systemError = flushToDisk(file.descriptor_);
    if (written.systemError != 0) {
        if (file.isNew_) ::unlink(path.c_str());
        return Error::fromErrno(written.systemError, "cannot write " + path.string());
    }
    file.end_ = line.size();
    return file;
}

EventFile::EventFile(std::filesystem::path path, int descriptor, bool isNew, RecordingFaults& faults)
    : path_(std::move(path)), descriptor_(descriptor), isNew_(isNew), faults_(&faults) {}

EventFile::EventFile(EventFile&& other) noexcept
    : path_(std::move(other.path_)),
      descriptor_(std::exchange(other.descriptor_, -1)),
      isNew_(other.isNew_),
      faults_(other.faults_),
      end_(other.end_),
      waiting_(std::move(other.waiting_)),
      dropped_(other.dropped_) {}

EventFile::~EventFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

void EventFile::append(std::string_view line) {
    if (waiting_.size() + line.size() > kMostWaiting) {
        ++dropped_;
        return;
    }
    waiting_ += line;
}

bool EventFile::flush() {
    if (waiting_.empty() || descriptor_ < 0) return false;
    const Written written =
        writeAt(descriptor_, end_, reinterpret_cast<const std::uint8_t*>(waiting_.data()), waiting_.size());
    const std::size_t lastFeed = written.bytes == 0
                                     ? std::string::npos
                                     : waiting_.rfind('\n', static_cast<std::size_t>(written.bytes) - 1);
    const std::size_t whole = lastFeed == std::string::npos ? 0 : lastFeed + 1;
    end_ += whole;
    waiting_.erase(0, whole);
    if (written.bytes != whole) {
        // Every write goes to end_, so a torn line that cannot be cut off is overwritten by the next one.
        [[maybe_unused]] const int cut = ::ftruncate(descriptor_, static_cast<off_t>(end_));
    }
    if (written.systemError != 0) faults_->reportWriteError();
    return whole > 0;
}

void EventFile::close() {
    if (descriptor_ < 0) return;
    flush();
    dropped_ += static_cast<std::uint64_t>(std::count(waiting_.begin(), waiting_.end(), '\n'));
    if (dropped_ > 0) {
        faults_->reportWriteError();
        spdlog::error("recording: {} line(s) of {} could not be written", dropped_, path_.string());
    }
    if (flushToDisk(descriptor_) != 0) faults_->reportWriteError();
    // After EINTR the descriptor is gone all the same.
    if (::close(std::exchange(descriptor_, -1)) != 0 && errno != EINTR) faults_->reportWriteError();
}

}  // namespace lm::storage
