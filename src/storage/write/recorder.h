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
#include <string>
#include <utility>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_info.h"
#include "storage/write/disk_watch.h"
#include "storage/write/recording_writer.h"

namespace lm::storage {

class Recorder;

/// The groups of one measurement.
class GroupRange {
  public:
    /// As RecordingWriter::write(); `group` counts from 0 in the range. Not before Recorder::begin().
    bool write(std::size_t group, std::int64_t timestampNs, const std::uint8_t* data,
               std::size_t length) const;
    /// As RecordingWriter::note().
    void note(std::string line) const;

  private:
    friend class Recorder;
    GroupRange(const Recorder& recorder, std::size_t first, std::size_t count)
        : recorder_(&recorder), first_(first), count_(count) {}

    const Recorder* recorder_;
    std::size_t first_;
    std::size_t count_;
};

class Recorder {
  public:
    /// `about` tells all but the groups.
    explicit Recorder(RecordingInfo about) : info_(std::move(about)) {}
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    GroupRange add(std::vector<GroupInfo> groups);

    /// Makes the recording, of so many seconds (0: open), and watches its disk; nothing is added any more.
    /// Errors: those of RecordingWriter::create(), "cannot start the watch of the disk: REASON".
    Result<void> begin(const std::filesystem::path& directory, DiskForecast::Seconds duration);
    /// As of RecordingWriter: one of both ends what begin() began. These and the counters: not before begin()
    /// has succeeded.
    Result<void> close();
    Result<void> discard();

    std::uint64_t recordsWritten() const { return writer_->recordsWritten(); }
    std::uint64_t recordsDropped() const { return writer_->recordsDropped(); }

  private:
    friend class GroupRange;

    RecordingInfo info_;                       ///< until begin()
    std::unique_ptr<RecordingWriter> writer_;  ///< constant since begin()
    DiskWatch disk_;
};

}  // namespace lm::storage
