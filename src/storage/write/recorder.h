// A recording that several measurements share: each registers its groups before the recording begins and
// writes to them by its own numbers.
//
// Threads: as of RecordingWriter; add() and begin() belong to the owner. Lifetime: the recorder stays in
// place while a range of it is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_info.h"
#include "storage/write/disk_watch.h"
#include "storage/write/part_keeper.h"
#include "storage/write/part_names.h"
#include "storage/write/part_series.h"
#include "storage/write/recording_writer.h"

namespace lm::storage {

class Recorder;

/// The groups of one measurement.
class GroupRange {
  public:
    /// As RecordingWriter::write(); `group` counts from 0 in the range. Not before Recorder::begin().
    bool write(std::size_t group, std::int64_t timestampNs, const std::uint8_t* data,
               std::size_t length) const;
    /// As RecordingWriter::note(), of the ECU of the range.
    void note(const std::string& line) const;

  private:
    friend class Recorder;
    GroupRange(const Recorder& recorder, std::size_t first, std::size_t count, std::string ecu)
        : recorder_(&recorder), first_(first), count_(count), ecu_(std::move(ecu)) {}

    const Recorder* recorder_;
    std::size_t first_;
    std::size_t count_;
    std::string ecu_;
};

/// Where a recording goes and what becomes of it.
struct RecordingPlace {
    /// Of the recording; with a name or a split, the folder below which it gets directories of its own.
    std::filesystem::path directory;
    std::string name = {};  ///< a pattern, see PartNames; empty with a split: "{time}_{n}"
    SplitRule split = {};
    KeepRule keep = {};                          ///< of the closed parts
    ICareForParts* care = nullptr;               ///< of each recording that is closed; borrowed
    std::vector<CompanionFile> companions = {};  ///< in each of them
    IRecordSource* source = nullptr;             ///< as WriterOptions::source; borrowed
};

class Recorder {
  public:
    /// `about` tells all but the groups.
    explicit Recorder(RecordingInfo about) : info_(std::move(about)) {}
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Of one of several ECUs with its name: what is noted through the range tells it.
    GroupRange add(std::vector<GroupInfo> groups, std::string ecu = {});

    /// Makes the recording, of so many seconds (0: open), and watches its disk; nothing is added any more.
    /// Errors: those of RecordingWriter::create(), "cannot start the watch of the disk: REASON".
    Result<void> begin(const RecordingPlace& place, DiskForecast::Seconds duration);
    /// As of RecordingWriter: one of both ends what begin() began. These and the counters: not before begin()
    /// has succeeded.
    Result<void> close();
    Result<void> discard();
    /// After close(): waits until all that was closed has been cared for. The destructor waits likewise.
    void finishCare();

    /// The directory of the recording, or of its last part after close().
    const std::filesystem::path& directory() const { return directory_; }
    /// So far, from any thread; 0: it was not to be split.
    std::uint64_t parts() const { return series_ ? series_->count() : 0; }

    std::uint64_t recordsWritten() const { return writer_->recordsWritten(); }
    std::uint64_t recordsDropped() const { return writer_->recordsDropped(); }

  private:
    friend class GroupRange;

    Result<void> claimDirectory(const RecordingPlace& place, WriterOptions& options);
    Result<void> beginSeries(const RecordingPlace& place);

    RecordingInfo info_;
    std::filesystem::path directory_;
    std::optional<PartNames> names_;
    std::unique_ptr<RecordingWriter> writer_;  ///< constant since begin()
    std::unique_ptr<PartKeeper> keeper_;       ///< where something is to be cared for or kept
    std::unique_ptr<PartSeries> series_;       ///< where there is a split
    DiskWatch disk_;
};

}  // namespace lm::storage
