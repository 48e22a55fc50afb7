#include "storage/read/recording_follower.h"

#include <algorithm>

#include "core/file_lock.h"
#include "storage/format/recording_events.h"

namespace lm::storage {

GroupFollower::GroupFollower(std::filesystem::path directory, GroupReader reader)
    : directory_(std::move(directory)), reader_(std::move(reader)), files_(SummaryFile::kMaxLevel + 1) {}

Result<RecordBatch> GroupFollower::nextRecords() {
    stream_ = reader_.read({given_, reader_.recordCount()});
    auto batch = stream_->next();
    if (batch) given_ += batch.value().count;
    return batch;
}

Result<GroupFollower::Entries> GroupFollower::nextEntries(std::size_t number) {
    FollowedFile& file = files_[number];
    Entries entries{file.given, {}};
    if (!file.reader) return entries;
    // What is there beyond the records of the look waits for the next one.
    const std::uint64_t end =
        std::min(file.reader->count(), reader_.recordCount() / SummaryFile::span(number));
    if (file.given >= end) return entries;
    auto bytes = file.reader->read(file.given, end - file.given);
    if (!bytes) return bytes.error();
    entries.bytes = bytes.value();
    file.given += entries.bytes.size() / file.reader->entrySize();
    return entries;
}

Result<void> GroupFollower::look(bool live) {
    if (auto looked = reader_.refresh(); !looked) return looked;
    if (reader_.recordCount() < given_) {
        return Error{ErrorCode::ioError, reader_.file().path().string() + ": shorter than before"};
    }
    // The file of records grows first: entries that are missing here come with a later look.
    for (std::size_t number = 0; number < files_.size(); ++number) {
        if (auto looked = lookAt(number, live); !looked) return looked;
    }
    return {};
}

Result<void> GroupFollower::lookAt(std::size_t number, bool live) {
    std::optional<EntryReader>& reader = files_[number].reader;
    if (reader) return reader->refresh();
    const GroupInfo& group = reader_.info();
    if (SummaryFile::entrySize(number, group) == 0) return {};
    if (SummaryFile::span(number) > reader_.recordCount()) return {};
    // A level comes with its first entry; one that does not fit is done without.
    auto opened = EntryReader::open(directory_, reader_.number(), group, number);
    if (!opened) {
        const Error& error = opened.error();
        return error.sysErrno != 0 && error.code != ErrorCode::notFound ? Result<void>(error)
                                                                        : Result<void>();
    }
    // One that no one writes meanwhile is left from an older recording.
    if (live && !isLockedByAnother(opened.value().file().descriptor())) return {};
    reader = std::move(opened).value();
    return {};
}

Result<RecordingFollower> RecordingFollower::open(const std::filesystem::path& directory) {
    auto recording = RecordingReader::open(directory);
    if (!recording) return recording.error();
    auto events = InputFile::open(directory / kEventFileName);
    if (!events && events.error().code != ErrorCode::notFound) return events.error();
    RecordingFollower follower(std::move(recording).value(),
                               events ? std::optional(std::move(events).value()) : std::nullopt);
    for (std::size_t i = 0; i < follower.info().groups.size(); ++i) {
        auto group = follower.recording_.openGroup(i);
        if (!group) return group.error();
        follower.groups_.push_back({directory, std::move(group).value()});
    }
    return follower;
}

Result<bool> RecordingFollower::look() {
    // Asked first: what is found after the end is all.
    const bool live = events_ && isLockedByAnother(events_->descriptor());
    for (GroupFollower& group : groups_) {
        if (auto looked = group.look(live); !looked) return looked.error();
    }
    return live;
}

}  // namespace lm::storage
