#include "storage/write/recording_files.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <unistd.h>

#include "core/durable_file.h"
#include "storage/format/recording_meta.h"

namespace lm::storage {
namespace {

namespace fs = std::filesystem;

/// The group number has 16 bits in the queue.
constexpr std::size_t kMaxGroups = 65536;

/// The directory and its parents as far as they are not there, the outermost first.
std::vector<fs::path> missingDirectories(const fs::path& directory) {
    std::vector<fs::path> missing;
    std::error_code failure;
    for (fs::path at = directory; !at.empty() && !fs::exists(at, failure); at = at.parent_path())
        missing.push_back(at);
    std::reverse(missing.begin(), missing.end());
    return missing;
}

Result<void> removeFile(const fs::path& path) {
    std::error_code failure;
    fs::remove(path, failure);
    if (!failure) return {};
    return Error::fromErrno(failure.value(), "cannot remove " + path.string());
}

}  // namespace

Result<std::unique_ptr<RecordingFiles>> RecordingFiles::create(const fs::path& path, RecordingInfo info,
                                                               RecordingCounters& counters,
                                                               const std::vector<CompanionFile>& companions,
                                                               std::vector<fs::path> newDirectories) {
    // The constructor is private, which std::make_unique cannot call.
    std::unique_ptr<RecordingFiles> files(new RecordingFiles(path, std::move(info)));
    files->madeDirectories_ = std::move(newDirectories);
    if (auto prepared = files->prepare(counters, companions); !prepared) {
        static_cast<void>(files->remove());  // the first error says what to mend
        return prepared.error();
    }
    return files;
}

Result<void> RecordingFiles::prepare(RecordingCounters& counters,
                                     const std::vector<CompanionFile>& companions) {
    if (auto made = makeDirectory(); !made) return made;
    if (auto fit = checkGroups(); !fit) return fit;
    MetaFile meta(path_);
    if (auto staged = meta.stage(info_); !staged) return staged;
    for (std::size_t i = 0; i < info_.groups.size(); ++i) {
        auto files = GroupWriter::create(i, info_.groups[i], faults_, counters);
        if (!files) return files.error();
        groups_.push_back(std::move(files).value());
    }
    auto made = EventFile::create(info_, faults_);
    if (!made) return made.error();
    events_.emplace(std::move(made).value());
    for (const CompanionFile& companion : companions) {
        if (auto written = writeCompanion(companion); !written) return written;
    }
    // What says that there is a recording comes last: a crash before leaves none, a crash after a whole one.
    if (const int failure = flushDirectoryToDisk(path_); failure != 0) {
        return Error::fromErrno(failure, "cannot write " + path_.string());
    }
    auto committed = meta.commit();
    if (meta.isInPlace()) madeFiles_.push_back(path_ / kMetaFileName);
    if (!committed) return committed;
    return startFlusher();
}

Result<void> RecordingFiles::makeDirectory() {
    std::error_code failure;
    const auto failed = [this](int reason) {
        return Error::withReasonAsHint(codeFromErrno(reason), reason, "cannot create " + path_.string());
    };
    for (const fs::path& directory : missingDirectories(path_)) {
        const bool made = fs::create_directory(directory, failure);
        if (failure) return failed(failure.value());
        if (made) madeDirectories_.push_back(directory);
    }
    if (!fs::is_directory(path_, failure)) return failed(failure ? failure.value() : ENOTDIR);
    for (const fs::path& directory : madeDirectories_) {
        const fs::path parent = directory.has_parent_path() ? directory.parent_path() : ".";
        if (const int lost = flushDirectoryToDisk(parent); lost != 0) return failed(lost);
    }
    return {};
}

Result<void> RecordingFiles::checkGroups() const {
    if (info_.groups.size() > kMaxGroups) return Error{ErrorCode::invalidArgument, "too many groups"};
    for (const GroupInfo& group : info_.groups) {
        if (group.recordSize > kMaxRecordSize) {
            return Error{ErrorCode::invalidArgument, group.name + ": record too large"};
        }
        if (auto placed = checkSignalPlaces(group); !placed) return placed;
    }
    return {};
}

Result<void> RecordingFiles::writeCompanion(const CompanionFile& file) {
    const fs::path target = path_ / file.name;
    auto made = ClaimedFile::create(target, file.text.data(), file.text.size(), ClaimedFile::Begin::onDisk);
    if (!made) return made.error();
    if (made.value().isNew()) madeFiles_.push_back(target);
    if (const int failure = made.value().close(); failure != 0) return made.value().writeError(failure);
    return {};
}

Result<void> RecordingFiles::startFlusher() {
    std::vector<int> files;
    for (const GroupWriter& group : groups_)
        files.push_back(group.recordDescriptor());
    files.push_back(events_->file().descriptor());
    return flusher_.start(std::move(files));
}

void RecordingFiles::note(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        standing_.take(line);
        events_->append(line);
    }
    if (!lines.empty() && events_->flush()) flusher_.request();
}

void RecordingFiles::flush() {
    for (GroupWriter& group : groups_)
        group.flush();
    events_->flush();
    flusher_.request();
    if (flusher_.failed()) faults_.reportWriteError();
}

/// The numbers that the next records get.
PartBorder RecordingFiles::border(std::int64_t timeNs) const {
    PartBorder border{timeNs, {}, {}};
    for (const GroupWriter& group : groups_)
        border.records.push_back(group.place().number);
    return border;
}

void RecordingFiles::continueIn(RecordingFiles& next, std::int64_t nowNs) {
    for (std::size_t i = 0; i < groups_.size(); ++i) {
        groups_[i].flush();
        next.groups_[i].continueAfter(groups_[i].place());
    }
    PartBorder here = border(nowNs);
    const std::string begin = partBeginLine(here);
    here.next = next.path_.filename().string();
    events_->append(standing_.endLines(nowNs));
    events_->append(partEndLine(here));
    events_->flush();
    next.standing_ = standing_;
    next.events_->append(begin);
    next.events_->append(standing_.beginLines(nowNs));
    next.events_->flush();
    next.flusher_.request();
}

void RecordingFiles::close() {
    flusher_.stop();
    if (flusher_.failed()) faults_.reportWriteError();
    // After all writes the disk can take them together.
    for (GroupWriter& group : groups_)
        group.flush();
    events_->flush();
    for (GroupWriter& group : groups_)
        group.close();
    events_->close();
}

Result<void> RecordingFiles::remove() {
    flusher_.stop();
    Result<void> result;
    std::vector<fs::path> files = std::exchange(madeFiles_, {});
    for (const GroupWriter& group : groups_) {
        for (fs::path& file : group.newFiles())
            files.push_back(std::move(file));
    }
    if (events_ && events_->file().isNew()) files.push_back(events_->file().path());
    for (const fs::path& file : files) {
        auto removed = removeFile(file);
        if (!removed && result) result = std::move(removed);
    }
    groups_.clear();
    events_.reset();
    // rmdir leaves a directory with somebody else's files alone.
    for (; !madeDirectories_.empty(); madeDirectories_.pop_back())
        ::rmdir(madeDirectories_.back().c_str());
    return result;
}

}  // namespace lm::storage
