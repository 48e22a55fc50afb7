// Reads the records of one group of a recording: by number, by time, batch by batch in constant memory.
// Groups of recordings that follow each other can be joined and are then read as one, piece after piece. A
// recording that is still being written, or that ends in a torn record, is read up to the last record that
// was whole when the group was opened, or at the last refresh().
//
// Threads: one at a time; several readers of one group do not disturb each other. Lifetime: borrows the
// description of the group, which must outlive it (that of a RecordingReader survives moving the reader);
// owns its files.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <vector>

#include "core/bytes.h"
#include "core/result.h"
#include "storage/format/recording_format.h"
#include "storage/format/recording_info.h"
#include "storage/read/input_file.h"

namespace lm::storage {

/// Records by number, from 0: `first` up to, but without, `end`.
struct RecordRange {
    std::uint64_t first = 0;
    std::uint64_t end = 0;

    std::uint64_t count() const { return end > first ? end - first : 0; }
};

/// Nanoseconds on the clock of the recording's timestamps: `fromNs` up to, but without, `endNs`.
struct TimeRange {
    std::int64_t fromNs = std::numeric_limits<std::int64_t>::min();
    std::int64_t endNs = std::numeric_limits<std::int64_t>::max();
};

/// The first and the last timestamp of some records; as built, of none.
struct TimeSpan {
    std::int64_t firstNs = std::numeric_limits<std::int64_t>::max();
    std::int64_t lastNs = std::numeric_limits<std::int64_t>::min();

    bool isEmpty() const { return firstNs > lastNs; }
    void add(const TimeSpan& other) {
        firstNs = std::min(firstNs, other.firstNs);
        lastNs = std::max(lastNs, other.lastNs);
    }
};

/// Records as they lie in the file: back to back, `stride` bytes apart, each its timestamp (signed 64-bit
/// nanoseconds, little-endian) and then the group's recordSize bytes.
struct RecordBatch {
    const std::uint8_t* bytes = nullptr;
    std::size_t count = 0;
    std::size_t stride = 0;
    std::uint64_t firstNumber = 0;

    std::int64_t timestampNs(std::size_t i) const {
        return static_cast<std::int64_t>(readLittle<std::uint64_t>(bytes + i * stride));
    }
    /// The bytes of the ECU.
    const std::uint8_t* data(std::size_t i) const { return bytes + i * stride + kTimestampSize; }
};

/// What one file holds of a group: so many records from `first` on. Its timestamps count from another instant
/// when it is of another series, which is `shiftNs` away.
struct GroupPiece {
    InputFile file;
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    std::int64_t shiftNs = 0;
    bool beingWritten = false;

    std::filesystem::path directory() const { return file.path().parent_path(); }
    std::uint64_t end() const { return first + count; }
};

/// One pass over some records. Borrows its GroupReader's files: the reader must outlive it and stay in place.
class RecordStream {
  public:
    /// The next records; a batch of none at the end. Its bytes are valid until the next call.
    /// Errors: those of InputFile::readAt().
    Result<RecordBatch> next();

    /// Makes the timestamps of the batch that next() returned last count from `originNs`.
    void countTimesFrom(std::int64_t originNs);

  private:
    friend class GroupReader;
    RecordStream(const std::vector<GroupPiece>& pieces, RecordRange range, std::size_t stride,
                 std::size_t batchBytes);

    const std::vector<GroupPiece>* pieces_;
    RecordRange left_;
    std::size_t stride_;
    std::vector<std::uint8_t> buffer_;
    std::size_t count_ = 0;  ///< records of the last batch
};

class GroupReader {
  public:
    static constexpr std::size_t kBatchBytes = std::size_t{1} << 20U;

    /// Opens the record file and compares its header with `group`. A file shorter than its header holds no
    /// records. Errors: those of InputFile::open(). What no damage explains is unsupported: "PATH: format
    /// version N instead of 2", "PATH: of another recording: records of N bytes every M, meta.json says ..."
    /// when these sizes agree with each other. Damage is invalidArgument: "PATH: not the header of a record
    /// file", "PATH: records of N bytes every M, meta.json says ...".
    static Result<GroupReader> open(const std::filesystem::path& directory, std::size_t number,
                                    const GroupInfo& group);

    /// The same without a look at the header: for checks and repairs.
    static Result<GroupReader> openUnchecked(const std::filesystem::path& directory, std::size_t number,
                                             const GroupInfo& group);
    /// What open() has to say about the header.
    Result<void> checkHeader() const;

    /// The records of `next` follow these, their timestamps moved by `shiftNs`; it is of a like group. Error
    /// (invalidArgument): "DIRECTORY begins before DIRECTORY ends".
    Result<void> append(GroupReader next, std::int64_t shiftNs);
    const std::vector<GroupPiece>& pieces() const { return pieces_; }

    /// Takes up the records that the (last) file has now. Errors: those of InputFile::refresh().
    Result<void> refresh();

    const GroupInfo& info() const { return *info_; }
    /// The place of the group in "groups", and the number in its file names.
    std::size_t number() const { return number_; }

    std::uint64_t recordCount() const { return recordCount_; }
    RecordRange all() const { return {0, recordCount_}; }
    /// Bytes from one record to the next.
    std::size_t stride() const { return stride_; }
    /// Place of record `n` in the file of a group that is not joined.
    std::uint64_t offsetOf(std::uint64_t n) const { return kHeaderSize + n * stride_; }
    /// Bytes behind the last whole record, in all files.
    std::uint64_t tornBytes() const;
    /// True when, at its opening, another program had the (last) file open for recording.
    bool isBeingWritten() const { return pieces_.back().beingWritten; }
    /// The first one.
    const InputFile& file() const { return pieces_.front().file; }

    /// The timestamp of record `n`, which is below recordCount().
    Result<std::int64_t> timestampNs(std::uint64_t n) const;

    /// Of the first and the last record. Errors: those of InputFile::readAt().
    Result<TimeSpan> timeSpan() const;

    /// The records whose timestamps lie in `times`. A few dozen small reads, whatever the length.
    Result<RecordRange> find(const TimeRange& times) const;

    /// A pass over `range`, which lies in all(). A batch has one record at least, else up to `batchBytes`.
    RecordStream read(RecordRange range, std::size_t batchBytes = kBatchBytes) const;

  private:
    GroupReader(InputFile file, std::size_t number, const GroupInfo& group);

    void countRecords();
    Result<std::uint64_t> firstNotBefore(std::int64_t timeNs) const;
    Result<std::uint64_t> guess(std::int64_t timeNs) const;

    std::vector<GroupPiece> pieces_;  ///< at least one
    const GroupInfo* info_;
    std::size_t number_;
    std::size_t stride_;
    std::uint64_t recordCount_ = 0;
};

}  // namespace lm::storage
