// The files of one group: records, time index and levels. Index and levels follow the records that are in
// the record file, so they never hold one that did not get there.
//
// Threads: the file thread; create() and newFiles() on the owner's while that one does not run. Lifetime:
// borrows the group, the faults and the counters, which outlive it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <vector>

#include "core/result.h"
#include "storage/format/recording_faults.h"
#include "storage/format/recording_info.h"
#include "storage/write/append_file.h"
#include "storage/write/summary_writer.h"

namespace lm::storage {

struct RecordingCounters {
    std::atomic<std::uint64_t> recordsWritten{0};
    std::atomic<std::uint64_t> bytesWritten{0};
    std::atomic<std::uint64_t> recordsDropped{0};
};

class GroupWriter {
  public:
    /// How far a group has come: the number of its next record, in all parts together, and the time of its
    /// last.
    struct Place {
        std::uint64_t number = 0;
        std::int64_t lastTimestampNs = std::numeric_limits<std::int64_t>::min();
    };

    /// Makes the record file, its header on the disk, and the index. Errors: those of ClaimedFile::create();
    /// then neither file is left.
    static Result<GroupWriter> create(std::size_t groupIndex, const GroupInfo& group, RecordingFaults& faults,
                                      RecordingCounters& counters);

    /// `data` holds the group's recordSize bytes. A timestamp before the previous one becomes that one.
    void append(std::int64_t timestampNs, const std::uint8_t* data);
    void flush();
    /// Records that the disk did not take have a number all the same.
    Place place() const { return place_; }
    /// Before the first record: this group goes on where another one ended.
    void continueAfter(const Place& before) { place_ = before; }
    /// Of the file of records, open until close().
    int recordDescriptor() const { return records_.file().descriptor(); }
    /// Flushes, the records also to the disk, and closes; records that still did not get into the file count
    /// as dropped. Index and levels reach the disk when the system sees fit: they can be made again.
    void close();

    /// The files that this object made and did not find there.
    std::vector<std::filesystem::path> newFiles() const;

  private:
    GroupWriter(std::uint32_t recordSize, AppendFile records, SummaryWriter summary, RecordingFaults& faults,
                RecordingCounters& counters);

    void flushRecords();

    std::uint32_t recordSize_;
    AppendFile records_;
    SummaryWriter summary_;
    RecordingFaults* faults_;
    RecordingCounters* counters_;
    Place place_;
    bool stalled_ = false;  ///< the last flush failed; only the next timed flush tries again
};

}  // namespace lm::storage
