#include "storage/write/recorder.h"

#include <chrono>
#include <iterator>
#include <limits>
#include <unistd.h>

#include <spdlog/fmt/fmt.h>

#include "core/platform.h"
#include "storage/format/recording_events.h"

namespace lm::storage {

bool GroupRange::write(std::size_t group, std::int64_t timestampNs, const std::uint8_t* data,
                       std::size_t length) const {
    // What is no one's group is refused and counted there.
    constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();
    return recorder_->writer_->write(group < count_ ? first_ + group : kNone, timestampNs, data, length);
}

void GroupRange::note(const std::string& line) const {
    recorder_->writer_->note(lineOfEcu(line, ecu_));
}

GroupRange Recorder::add(std::vector<GroupInfo> groups, std::string ecu) {
    GroupRange range(*this, info_.groups.size(), groups.size(), std::move(ecu));
    std::move(groups.begin(), groups.end(), std::back_inserter(info_.groups));
    return range;
}

Result<void> Recorder::begin(const RecordingPlace& place, DiskForecast::Seconds duration) {
    // Every group keeps two files open and one more per summary level.
    raiseOpenFileLimit();
    WriterOptions options;
    options.queueBytes = recommendedQueueBytes(info_);
    options.companions = place.companions;
    options.source = place.source;
    if (auto claimed = claimDirectory(place, options); !claimed) return claimed;
    auto writer = RecordingWriter::create(directory_, info_, options);
    if (!writer) return writer.error();
    writer_ = std::move(writer).value();
    auto begun = beginSeries(place);
    // What may be removed for the sake of room is no reason to warn of little room.
    if (begun && !place.keep.any())
        begun = disk_.start(directory_, DiskForecast(expectedBytesPerSecond(info_), duration));
    // The reason is what counts.
    if (!begun) static_cast<void>(discard());
    return begun;
}

Result<void> Recorder::claimDirectory(const RecordingPlace& place, WriterOptions& options) {
    directory_ = place.directory;
    if (place.split.any()) {
        names_ =
            PartNames::forParts(place.directory, place.name.empty() ? "{time}_{n}" : place.name, info_.ecu);
        info_.part = PartInfo{fmt::format("{:x}-{:x}", info_.startUtcNs, ::getpid()), 1, ""};
    } else if (!place.name.empty()) {
        names_ = PartNames::forRecordings(place.directory, place.name, info_.ecu);
    }
    if (!names_) return {};
    auto claimed = names_->claim(1, info_.startUtcNs);
    if (!claimed) return claimed.error();
    directory_ = claimed.value().path;
    options.newDirectories = claimed.value().made;
    info_.name = directory_.filename().string();
    return {};
}

Result<void> Recorder::beginSeries(const RecordingPlace& place) {
    if (!place.split.any() && place.care == nullptr) return {};
    const auto noteRemoved = [this](const std::string& part) {
        const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
        writer_->note(partRemovedLine(now.count(), part));
    };
    keeper_ = std::make_unique<PartKeeper>(
        PartKeeper::Series{info_.part ? info_.part->series : "", info_.ecu, place.directory}, place.keep,
        place.care, noteRemoved);
    if (auto started = keeper_->start(); !started) return started;
    if (!place.split.any()) return {};
    series_ = std::make_unique<PartSeries>(
        *writer_, *keeper_,
        PartSeries::Plan{info_, directory_, *names_, place.split, place.keep, place.companions});
    return series_->start();
}

Result<void> Recorder::close() {
    disk_.stop();
    if (series_) {
        series_->stop();
        directory_ = series_->lastPart();
    }
    auto closed = writer_->close();
    if (keeper_) keeper_->add(directory_);
    if (series_ && series_->failedPart()) return RecordingWriter::writeErrorIn(*series_->failedPart());
    return closed;
}

Result<void> Recorder::discard() {
    disk_.stop();
    if (series_) series_->stop();
    return writer_->discard();
}

void Recorder::finishCare() {
    if (keeper_) keeper_->finish();
}

}  // namespace lm::storage
