#include "storage/write/event_file.h"

#include <algorithm>
#include <utility>

#include "core/log.h"
#include "storage/format/recording_events.h"

namespace lm::storage {
namespace {

constexpr std::size_t kMostWaiting = 64 * 1024;

}  // namespace

Result<EventFile> EventFile::create(const RecordingInfo& info, RecordingFaults& faults) {
    const std::string line = startLine(info);
    auto made = ClaimedFile::create(faults.directory() / kEventFileName, line.data(), line.size(),
                                    ClaimedFile::Begin::onDisk);
    if (!made) return made.error();
    return EventFile(std::move(made).value(), faults);
}

void EventFile::append(std::string_view line) {
    if (waiting_.size() + line.size() > kMostWaiting) {
        ++dropped_;
        return;
    }
    waiting_ += line;
}

bool EventFile::flush() {
    if (waiting_.empty() || !file_.isOpen()) return false;
    const auto wholeLines = [this](std::uint64_t bytes) -> std::uint64_t {
        // npos + 1 is 0.
        return bytes == 0 ? 0 : waiting_.rfind('\n', static_cast<std::size_t>(bytes) - 1) + 1;
    };
    const Written written = file_.append(waiting_.data(), waiting_.size(), wholeLines);
    waiting_.erase(0, static_cast<std::size_t>(written.bytes));
    if (written.systemError != 0) faults_->reportWriteError();
    return written.bytes > 0;
}

void EventFile::close() {
    if (!file_.isOpen()) return;
    flush();
    dropped_ += static_cast<std::uint64_t>(std::count(waiting_.begin(), waiting_.end(), '\n'));
    if (dropped_ > 0) {
        faults_->reportWriteError();
        log::error("recording: {} line(s) of {} could not be written", dropped_, file_.path().string());
    }
    if (file_.flushToDisk() != 0) faults_->reportWriteError();
    if (file_.close() != 0) faults_->reportWriteError();
}

}  // namespace lm::storage
