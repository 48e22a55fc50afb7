#include "storage/care/recording_repair.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <optional>
#include <unistd.h>
#include <utility>

#include <spdlog/fmt/fmt.h>

#include "core/file_lock.h"
#include "storage/care/event_check.h"
#include "storage/format/recording_events.h"
#include "storage/format/recording_format.h"
#include "storage/format/recording_meta.h"
#include "storage/read/entry_reader.h"
#include "storage/read/group_reader.h"
#include "storage/read/recording_reader.h"
#include "storage/write/append_file.h"
#include "storage/write/group_summary.h"

namespace lm::storage {
namespace {

namespace fs = std::filesystem;

Error writeError(const fs::path& path) {
    return Error::fromErrno(errno, "cannot write " + path.string());
}

class Descriptor {
  public:
    Descriptor(const fs::path& path, int flags) : value_(::open(path.c_str(), flags | O_CLOEXEC)) {}
    ~Descriptor() {
        if (value_ >= 0) ::close(value_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int value() const { return value_; }
    /// False, with an errno, when the system reports a late failure. After EINTR the descriptor is gone all
    /// the same.
    bool close() { return ::close(std::exchange(value_, -1)) == 0 || errno == EINTR; }

  private:
    int value_;
};

/// To the disk; what cannot be synchronised says EINVAL and is as safe as it gets.
Result<void> synchronise(const fs::path& path) {
    const Descriptor descriptor(path, O_RDONLY);
    if (descriptor.value() < 0 || (::fsync(descriptor.value()) != 0 && errno != EINVAL)) {
        return writeError(path);
    }
    return {};
}

/// A summary file that is made beside the one it replaces; gone when it did not get that far.
class Replacement {
  public:
    static Result<Replacement> create(fs::path path, const FileHeader& header, std::size_t entrySize) {
        fs::path temporary = path;
        temporary += ".tmp";
        auto file = AppendFile::create(temporary, header, entrySize);
        if (!file) return file.error();
        return Replacement(std::move(path), std::move(file).value());
    }
    Replacement(Replacement&& other) noexcept
        : path_(std::move(other.path_)),
          file_(std::move(other.file_)),
          entries_(other.entries_),
          pending_(std::exchange(other.pending_, false)) {}
    Replacement& operator=(Replacement&&) = delete;
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;
    ~Replacement() {
        if (pending_) ::unlink(file_.path().c_str());
    }

    Result<void> append(std::span<const std::uint8_t> entry) {
        if (file_.reserve() == nullptr) {
            if (auto written = flush(); !written) return written;
        }
        std::copy(entry.begin(), entry.end(), file_.reserve());
        file_.commit();
        ++entries_;
        return {};
    }
    Result<void> finish() {
        if (auto written = flush(); !written) return written;
        if (auto closed = file_.close(); !closed) return closed;
        return synchronise(file_.path());
    }
    Result<void> takePlace() {
        if (::rename(file_.path().c_str(), path_.c_str()) != 0) return writeError(path_);
        pending_ = false;
        return {};
    }

    const fs::path& path() const { return path_; }
    std::uint64_t entries() const { return entries_; }

  private:
    Replacement(fs::path path, AppendFile file) : path_(std::move(path)), file_(std::move(file)) {}

    Result<void> flush() {
        const AppendFile::Progress progress = file_.writeOut();
        file_.release(progress.units);
        if (progress.systemError == 0) return {};
        return Error::fromErrno(progress.systemError, "cannot write " + file_.path().string());
    }

    fs::path path_;
    AppendFile file_;
    std::uint64_t entries_ = 0;
    bool pending_ = true;  ///< stands under its temporary name
};

class GroupRepair {
  public:
    GroupRepair(fs::path directory, std::size_t number, const GroupInfo& group,
                const StopQuestion& shouldStop, const RepairListener& tell)
        : directory_(std::move(directory)),
          number_(number),
          group_(group),
          shouldStop_(shouldStop),
          tell_(tell) {}

    Result<void> run(const GroupCheck& check);

  private:
    Result<void> mendRecordFile(const GroupCheck& check, int descriptor);
    Result<void> makeSummaries(const std::vector<std::size_t>& numbers);
    Result<void> summarise(const std::vector<std::size_t>& numbers, std::vector<Replacement>& files) const;
    Result<void> removeSurplus(const std::vector<std::size_t>& numbers);

    fs::path directory_;
    std::size_t number_;
    const GroupInfo& group_;
    const StopQuestion& shouldStop_;
    const RepairListener& tell_;
};

Result<void> GroupRepair::run(const GroupCheck& check) {
    const fs::path path = directory_ / recordFileName(number_);
    // Held until the group is mended.
    Descriptor descriptor(path, O_RDWR | O_NOFOLLOW);
    // A recording from elsewhere must not lead the repair to other files.
    if (descriptor.value() < 0 && errno == ELOOP) {
        return Error{ErrorCode::invalidArgument,
                     "cannot write " + path.string() + ": a symbolic link is not followed"};
    }
    if (descriptor.value() < 0) return writeError(path);
    if (!lockForWriting(descriptor.value())) return stillRecorded(directory_);
    if (auto mended = mendRecordFile(check, descriptor.value()); !mended) return mended;
    if (auto made = makeSummaries(check.wrongFiles); !made) return made;
    if (auto removed = removeSurplus(check.surplusFiles); !removed) return removed;
    return descriptor.close() ? Result<void>() : writeError(path);
}

Result<void> GroupRepair::mendRecordFile(const GroupCheck& check, int descriptor) {
    const fs::path path = directory_ / recordFileName(number_);
    if (check.header == GroupCheck::Header::sound && check.tornBytes == 0) return {};
    if (check.header == GroupCheck::Header::mendable) {
        const FileHeader header = recordHeader(group_.recordSize);
        for (std::size_t done = 0; done < header.size();) {
            const ssize_t count =
                ::pwrite(descriptor, &header[done], header.size() - done, static_cast<off_t>(done));
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) return writeError(path);
            if (count == 0) return Error::fromErrno(ENOSPC, "cannot write " + path.string());
            done += static_cast<std::size_t>(count);
        }
        tell_(path.string() + ": header written anew");
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
    if (::fsync(descriptor) != 0 && errno != EINVAL) return writeError(path);
    return {};
}

Result<void> GroupRepair::makeSummaries(const std::vector<std::size_t>& numbers) {
    if (numbers.empty()) return {};
    std::vector<Replacement> files;
    for (const std::size_t number : numbers) {
        auto file =
            Replacement::create(SummaryFile::path(directory_, number_, number),
                                SummaryFile::header(number, group_), SummaryFile::entrySize(number, group_));
        if (!file) return file.error();
        files.push_back(std::move(file).value());
    }
    if (auto done = summarise(numbers, files); !done) return done;
    for (Replacement& file : files) {
        if (auto finished = file.finish(); !finished) return finished;
    }
    for (Replacement& file : files) {
        if (auto placed = file.takePlace(); !placed) return placed;
        tell_(fmt::format("{}: made anew with {} entries", file.path().string(), file.entries()));
    }
    return synchronise(directory_);
}

/// Fills the files with what the records give; `numbers` says which file of `files` is which.
Result<void> GroupRepair::summarise(const std::vector<std::size_t>& numbers,
                                    std::vector<Replacement>& files) const {
    auto reader = GroupReader::open(directory_, number_, group_);
    if (!reader) return reader.error();
    Result<void> result;
    GroupSummary summary(group_, [&](std::size_t number, std::span<const std::uint8_t> entry) {
        const auto wanted = std::find(numbers.begin(), numbers.end(), number);
        if (wanted != numbers.end()) {
            result = files[static_cast<std::size_t>(wanted - numbers.begin())].append(entry);
        }
        return result.ok();
    });
    RecordStream stream = reader.value().read(reader.value().all());
    for (;;) {
        if (shouldStop_()) return Error{ErrorCode::closed, "stopped"};
        auto batch = stream.next();
        if (!batch) return batch.error();
        if (batch.value().count == 0 || !summary.add(batch.value())) return result;
    }
}

Result<void> GroupRepair::removeSurplus(const std::vector<std::size_t>& numbers) {
    for (const std::size_t number : numbers) {
        const fs::path path = SummaryFile::path(directory_, number_, number);
        if (::unlink(path.c_str()) != 0) return writeError(path);
        tell_(path.string() + ": removed");
    }
    return numbers.empty() ? Result<void>() : synchronise(directory_);
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

Result<std::vector<Finding>> repairRecording(const fs::path& directory, const StopQuestion& shouldStop,
                                             const RepairListener& tell) {
    auto recording = RecordingReader::open(directory);
    if (!recording) return recording.error();
    if (auto free = refuseWhileRecorded(recording.value()); !free) return free.error();
    std::vector<Finding> left;
    const std::vector<GroupInfo>& groups = recording.value().info().groups;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        auto check = checkGroup(directory, i, recording.value().info(), shouldStop);
        if (!check) return check.error();
        const std::vector<Finding>& findings = check.value().findings;
        const auto mendable = [](const Finding& finding) { return finding.mendable; };
        std::copy_if(findings.begin(), findings.end(), std::back_inserter(left), std::not_fn(mendable));
        if (std::none_of(findings.begin(), findings.end(), mendable)) continue;
        GroupRepair repair(directory, i, groups[i], shouldStop, tell);
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
