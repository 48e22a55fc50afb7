#include "storage/care/recording_repair.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <unistd.h>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/durable_file.h"
#include "core/file_lock.h"
#include "core/file_write.h"
#include "core/unique_fd.h"
#include "storage/care/event_check.h"
#include "storage/format/recording_events.h"
#include "storage/format/recording_meta.h"
#include "storage/format/summary_file.h"
#include "storage/read/group_reader.h"
#include "storage/read/recording_reader.h"
#include "storage/write/summary_builder.h"

namespace lm::storage {
namespace {

namespace fs = std::filesystem;

Error writeError(const fs::path& path, int systemError = errno) {
    return Error::fromErrno(systemError, "cannot write " + path.string());
}

/// What a step of writing said, 0 or an errno.
Result<void> written(const fs::path& path, int systemError) {
    return systemError == 0 ? Result<void>() : writeError(path, systemError);
}

/// A summary file that is made beside the one it replaces; gone when it did not get that far.
class Replacement {
  public:
    static Result<Replacement> create(fs::path path, const FileHeader& header) {
        Replacement made(std::move(path));
        const int refused = made.file_.createAs(made.temporary_);
        if (refused == EWOULDBLOCK) return recordedByAnother(made.path_.parent_path());
        if (refused != 0) return Error::fromErrno(refused, "cannot create " + made.temporary_.string());
        made.buffer_.assign(header.begin(), header.end());
        return made;
    }

    Result<void> append(std::span<const std::uint8_t> entry) {
        constexpr std::size_t kBufferSize = 64 * 1024;
        buffer_.append(entry.begin(), entry.end());
        ++entries_;
        return buffer_.size() < kBufferSize ? Result<void>() : flush();
    }
    Result<void> finish() {
        if (auto flushed = flush(); !flushed) return flushed;
        return written(temporary_, flushToDisk(file_.descriptor()));
    }
    Result<void> takePlace() {
        if (const int late = file_.close(); late != 0) return writeError(temporary_, late);
        return written(path_, file_.place(path_, StagedFile::Existing::replaced));
    }

    const fs::path& path() const { return path_; }
    std::uint64_t entries() const { return entries_; }

  private:
    explicit Replacement(fs::path path) : path_(std::move(path)), temporary_(path_) { temporary_ += ".tmp"; }

    Result<void> flush() {
        const int failure = writeAll(file_.descriptor(), buffer_);
        buffer_.clear();
        return written(temporary_, failure);
    }

    fs::path path_;
    fs::path temporary_;
    StagedFile file_;
    std::string buffer_;
    std::uint64_t entries_ = 0;
};

class GroupRepair {
  public:
    GroupRepair(fs::path directory, std::size_t number, const GroupInfo& group, const StopToken& stop,
                const RepairListener& tell)
        : directory_(std::move(directory)), number_(number), group_(group), stop_(stop), tell_(tell) {}

    Result<void> run(const GroupCheck& check);

  private:
    Result<void> mendRecordFile(const GroupCheck& check, int descriptor);
    Result<void> makeSummaries(const std::vector<std::size_t>& numbers);
    Result<void> summarise(const std::vector<std::size_t>& numbers, std::vector<Replacement>& files) const;
    Result<void> removeSurplus(const std::vector<std::size_t>& numbers);

    fs::path directory_;
    std::size_t number_;
    const GroupInfo& group_;
    const StopToken& stop_;
    const RepairListener& tell_;
};

Result<void> GroupRepair::run(const GroupCheck& check) {
    const fs::path path = directory_ / recordFileName(number_);
    // Held until the group is mended.
    UniqueFd descriptor(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    // A recording from elsewhere must not lead the repair to other files.
    if (!descriptor.valid() && errno == ELOOP) {
        return Error{ErrorCode::invalidArgument,
                     "cannot write " + path.string() + ": a symbolic link is not followed"};
    }
    if (!descriptor.valid()) return writeError(path);
    if (!lockForWriting(descriptor.get())) return stillRecorded(directory_);
    if (auto mended = mendRecordFile(check, descriptor.get()); !mended) return mended;
    if (auto made = makeSummaries(check.wrongFiles); !made) return made;
    if (auto removed = removeSurplus(check.surplusFiles); !removed) return removed;
    return written(path, descriptor.close());
}

Result<void> GroupRepair::mendRecordFile(const GroupCheck& check, int descriptor) {
    const fs::path path = directory_ / recordFileName(number_);
    if (check.header == GroupCheck::Header::sound && check.tornBytes == 0) return {};
    if (check.header == GroupCheck::Header::mendable) {
        const FileHeader header = recordHeader(group_.recordSize);
        const Written done = writeAt(descriptor, 0, header.data(), header.size());
        if (done.systemError != 0) return writeError(path, done.systemError);
        tell_(path.string() + ": header written again");
    }
    if (check.tornBytes > 0) {
        const std::uint64_t end =
            kHeaderSize + check.records * (std::uint64_t{group_.recordSize} + kTimestampSize);
        if (::ftruncate(descriptor, static_cast<off_t>(end)) != 0) return writeError(path);
        if (check.header == GroupCheck::Header::sound || check.records > 0) {
            tell_(fmt::format("{}: cut {} bytes of a torn record behind {} whole records", path.string(),
                              check.tornBytes, check.records));
        }
    }
    return written(path, flushToDisk(descriptor));
}

Result<void> GroupRepair::makeSummaries(const std::vector<std::size_t>& numbers) {
    if (numbers.empty()) return {};
    std::vector<Replacement> files;
    for (const std::size_t number : numbers) {
        auto file = Replacement::create(SummaryFile::path(directory_, number_, number),
                                        SummaryFile::header(number, group_));
        if (!file) return file.error();
        files.push_back(std::move(file).value());
    }
    if (auto done = summarise(numbers, files); !done) return done;
    for (Replacement& file : files) {
        if (auto finished = file.finish(); !finished) return finished;
    }
    for (Replacement& file : files) {
        if (auto placed = file.takePlace(); !placed) return placed;
        tell_(fmt::format("{}: made again with {} entries", file.path().string(), file.entries()));
    }
    return written(directory_, flushDirectoryToDisk(directory_));
}

/// Fills the files with what the records give; `numbers` says which file of `files` is which.
Result<void> GroupRepair::summarise(const std::vector<std::size_t>& numbers,
                                    std::vector<Replacement>& files) const {
    auto reader = GroupReader::open(directory_, number_, group_);
    if (!reader) return reader.error();
    Result<void> result;
    SummaryBuilder summary(group_);
    const auto take = [&](std::size_t number, std::span<const std::uint8_t> entry) {
        const auto wanted = std::find(numbers.begin(), numbers.end(), number);
        if (wanted != numbers.end()) {
            result = files[static_cast<std::size_t>(wanted - numbers.begin())].append(entry);
        }
        return result.ok();
    };
    RecordStream stream = reader.value().read(reader.value().all());
    for (;;) {
        if (stop_.requested()) return Error::stopped("stopped");
        auto batch = stream.next();
        if (!batch) return batch.error();
        const RecordBatch& records = batch.value();
        if (records.count == 0 || !summary.add(records.bytes, records.count, take)) return result;
    }
}

Result<void> GroupRepair::removeSurplus(const std::vector<std::size_t>& numbers) {
    for (const std::size_t number : numbers) {
        const fs::path path = SummaryFile::path(directory_, number_, number);
        if (::unlink(path.c_str()) != 0) return writeError(path);
        tell_(path.string() + ": removed");
    }
    return numbers.empty() ? Result<void>() : written(directory_, flushDirectoryToDisk(directory_));
}

/// One look at all groups before anything is changed in any.
Result<void> refuseWhileRecorded(const RecordingReader& recording) {
    const std::vector<GroupInfo>& groups = recording.info().groups;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        auto reader = GroupReader::openUnchecked(recording.directory(), i, groups[i]);
        if (reader && reader.value().isBeingWritten()) return stillRecorded(recording.directory());
    }
    const bool isLive = readEvents(recording.directory(), recording.info()).beingWritten;
    return isLive ? Result<void>(stillRecorded(recording.directory())) : Result<void>();
}

}  // namespace

Result<std::vector<Finding>> repairRecording(const fs::path& directory, const StopToken& stop,
                                             const RepairListener& tell) {
    auto recording = RecordingReader::open(directory);
    if (!recording) return recording.error();
    if (auto free = refuseWhileRecorded(recording.value()); !free) return free.error();
    std::vector<Finding> left;
    const std::vector<GroupInfo>& groups = recording.value().info().groups;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        auto check = checkGroup(directory, i, recording.value().info(), stop);
        if (!check) return check.error();
        const std::vector<Finding>& findings = check.value().findings;
        const auto mendable = [](const Finding& finding) { return finding.mendable(); };
        std::copy_if(findings.begin(), findings.end(), std::back_inserter(left), std::not_fn(mendable));
        if (std::none_of(findings.begin(), findings.end(), mendable)) continue;
        GroupRepair repair(directory, i, groups[i], stop, tell);
        if (auto repaired = repair.run(check.value()); !repaired) return repaired.error();
    }
    if (auto repaired = repairEvents(directory, recording.value().info(), tell); !repaired) {
        return repaired.error();
    }
    for (Finding& finding : checkEvents(directory, recording.value().info()))
        left.push_back(std::move(finding));
    return left;
}

}  // namespace lm::storage
