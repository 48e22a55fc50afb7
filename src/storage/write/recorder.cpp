#include "storage/write/recorder.h"

#include <iterator>
#include <limits>

#include "core/platform.h"

namespace lm::storage {

bool GroupRange::write(std::size_t group, std::int64_t timestampNs, const std::uint8_t* data,
                       std::size_t length) const {
    // What is no one's group is refused and counted there.
    constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();
    return recorder_->writer_->write(group < count_ ? first_ + group : kNone, timestampNs, data, length);
}

void GroupRange::note(std::string line) const {
    recorder_->writer_->note(std::move(line));
}

GroupRange Recorder::add(std::vector<GroupInfo> groups) {
    const GroupRange range(*this, info_.groups.size(), groups.size());
    std::move(groups.begin(), groups.end(), std::back_inserter(info_.groups));
    return range;
}

Result<void> Recorder::begin(const std::filesystem::path& directory, DiskForecast::Seconds duration) {
    // Every group keeps two files open and one more per summary level.
    raiseOpenFileLimit();
    WriterOptions options;
    options.queueBytes = recommendedQueueBytes(info_);
    const DiskForecast forecast(expectedBytesPerSecond(info_), duration);
    auto writer = RecordingWriter::create(directory, std::move(info_), options);
    if (!writer) return writer.error();
    writer_ = std::move(writer).value();
    auto watched = disk_.start(directory, forecast);
    // The reason is what counts.
    if (!watched) static_cast<void>(writer_->discard());
    return watched;
}

Result<void> Recorder::close() {
    disk_.stop();
    return writer_->close();
}

Result<void> Recorder::discard() {
    disk_.stop();
    return writer_->discard();
}

}  // namespace lm::storage
