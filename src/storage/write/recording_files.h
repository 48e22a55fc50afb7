// All files of one recording while it is written: "meta.json", "events.jsonl" and those of its groups. A
// writer has one at a time; when it goes on in the next part of a series, it takes the files of that part
// instead.
//
// Threads: create(), close() and remove() on a thread that owns the files; append(), note(), flush() and
// those that hand over to the next part on the writer's thread while that one has them. Lifetime: owns
// everything but the counters, which outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_events.h"
#include "storage/format/recording_faults.h"
#include "storage/format/recording_info.h"
#include "storage/write/disk_flusher.h"
#include "storage/write/event_file.h"
#include "storage/write/group_writer.h"

namespace lm::storage {

/// The snapshot of the parameters in a recording's directory, when it has one.
inline constexpr std::string_view kParametersFileName = "parameters.json";

/// A file that a recording carries beside its own, such as a snapshot of the parameters.
struct CompanionFile {
    std::string name;
    std::string text;
};

class RecordingFiles {
  public:
    /// Errors: those of RecordingWriter::create() about files; a failure leaves nothing that was not there
    /// before, not even directories that the caller has just made itself (`newDirectories`, the outermost
    /// first).
    static Result<std::unique_ptr<RecordingFiles>> create(
        const std::filesystem::path& path, RecordingInfo info, RecordingCounters& counters,
        const std::vector<CompanionFile>& companions = {},
        std::vector<std::filesystem::path> newDirectories = {});

    const std::filesystem::path& path() const { return path_; }
    const RecordingInfo& info() const { return info_; }

    void append(std::size_t group, std::int64_t timestampNs, const std::uint8_t* data) {
        groups_[group].append(timestampNs, data);
    }
    /// Events go to the file as they come, and from there to the disk without waiting for the next flush.
    void note(const std::vector<std::string>& lines);
    /// Everything buffered into the files, and from there to the disk in a while.
    void flush();

    /// The part ends here and `next` begins; all that came so far is in the files, and not yet on the disk.
    void continueIn(RecordingFiles& next, std::int64_t nowNs);

    /// Flushes, also to the disk, and closes; may wait for the disk.
    void close();
    bool writeFailed() const { return faults_.writeFailed(); }

    /// Closes and removes the files and directories that create() made, these unless something else is in
    /// them. Errors: "cannot remove FILE: REASON".
    Result<void> remove();

  private:
    RecordingFiles(std::filesystem::path path, RecordingInfo info)
        : path_(std::move(path)), info_(std::move(info)), faults_(path_) {}

    Result<void> prepare(RecordingCounters& counters, const std::vector<CompanionFile>& companions);
    Result<void> makeDirectory();
    Result<void> checkGroups() const;
    Result<void> writeCompanion(const CompanionFile& file);
    Result<void> startFlusher();
    PartBorder border(std::int64_t timeNs) const;

    const std::filesystem::path path_;
    const RecordingInfo info_;
    std::vector<std::filesystem::path> madeDirectories_;  ///< the outermost first
    std::vector<std::filesystem::path> madeFiles_;        ///< but those of the groups and the events
    RecordingFaults faults_;
    std::vector<GroupWriter> groups_;
    std::optional<EventFile> events_;
    StandingEvents standing_;
    DiskFlusher flusher_;  ///< ends before the files that it borrows
};

}  // namespace lm::storage
