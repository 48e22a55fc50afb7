#include "storage/read/group_reader.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "core/file_lock.h"

namespace lm::storage {

Result<GroupReader> GroupReader::open(const std::filesystem::path& directory, std::size_t number,
                                      const GroupInfo& group) {
    auto reader = openUnchecked(directory, number, group);
    if (!reader) return reader.error();
    if (auto fits = reader.value().checkHeader(); !fits) return fits.error();
    return reader;
}

Result<GroupReader> GroupReader::openUnchecked(const std::filesystem::path& directory, std::size_t number,
                                               const GroupInfo& group) {
    auto file = InputFile::open(directory / recordFileName(number));
    if (!file) return file.error();
    return GroupReader(std::move(file).value(), number, group);
}

Result<void> GroupReader::checkHeader() const {
    if (file_.size() < kHeaderSize) return {};
    FileHeader header{};
    if (auto read = file_.readAt(0, header.data(), header.size()); !read) return read;
    const FileHeader expected = recordHeader(info_->recordSize);
    const std::string path = file_.path().string();
    const auto recordSize = readLittle<std::uint32_t>(&header[12]);
    const auto stride = readLittle<std::uint32_t>(&header[16]);
    const std::string sizes = "records of " + std::to_string(recordSize) + " bytes every " +
                              std::to_string(stride) + ", meta.json says " +
                              std::to_string(info_->recordSize) + " every " + std::to_string(stride_);
    const bool agrees = std::uint64_t{recordSize} + kTimestampSize == stride;
    if (agrees && stride != stride_) {
        return Error{ErrorCode::unsupported, path + ": of another recording: " + sizes};
    }
    if (!std::equal(header.begin(), header.begin() + kMagicSize, expected.begin())) {
        return Error{ErrorCode::invalidArgument, path + ": not the header of a record file"};
    }
    if (const auto version = readLittle<std::uint32_t>(&header[8]); version != kFormatVersion) {
        return Error{ErrorCode::unsupported, path + ": format version " + std::to_string(version) +
                                                 " instead of " + std::to_string(kFormatVersion)};
    }
    if (!agrees) return Error{ErrorCode::invalidArgument, path + ": " + sizes};
    return {};
}

GroupReader::GroupReader(InputFile file, std::size_t number, const GroupInfo& group)
    : file_(std::move(file)),
      info_(&group),
      number_(number),
      stride_(std::size_t{group.recordSize} + kTimestampSize),
      beingWritten_(isLockedByAnother(file_.descriptor())) {
    countRecords();
}

Result<void> GroupReader::refresh() {
    auto looked = file_.refresh();
    countRecords();
    return looked;
}

void GroupReader::countRecords() {
    recordCount_ = file_.size() < kHeaderSize ? 0 : (file_.size() - kHeaderSize) / stride_;
}

std::uint64_t GroupReader::tornBytes() const {
    return file_.size() < kHeaderSize ? file_.size() : file_.size() - offsetOf(recordCount_);
}

Result<std::int64_t> GroupReader::timestampNs(std::uint64_t n) const {
    std::array<std::uint8_t, kTimestampSize> bytes{};
    if (auto read = file_.readAt(offsetOf(n), bytes.data(), bytes.size()); !read) return read.error();
    return static_cast<std::int64_t>(readLittle<std::uint64_t>(bytes.data()));
}

Result<TimeSpan> GroupReader::timeSpan() const {
    if (recordCount_ == 0) return TimeSpan{};
    auto first = timestampNs(0);
    if (!first) return first.error();
    auto last = timestampNs(recordCount_ - 1);
    if (!last) return last.error();
    return TimeSpan{first.value(), last.value()};
}

Result<RecordRange> GroupReader::find(const TimeRange& times) const {
    auto first = firstNotBefore(times.fromNs);
    if (!first) return first.error();
    auto end = firstNotBefore(times.endNs);
    if (!end) return end.error();
    return RecordRange{first.value(), std::max(first.value(), end.value())};
}

// Straight in the records: the index would save no read worth having, and can be damaged or not written yet.
// Most groups are periodic, so the search begins where an even pace would have the record, and widens from
// there: that touches few pages of a file that may be much larger than the memory.
Result<std::uint64_t> GroupReader::firstNotBefore(std::int64_t timeNs) const {
    if (recordCount_ == 0 || timeNs == std::numeric_limits<std::int64_t>::min()) return 0;
    if (timeNs == std::numeric_limits<std::int64_t>::max()) return recordCount_;
    auto guessed = guess(timeNs);
    if (!guessed) return guessed.error();
    // Every record before `low` is older, none from `high` on.
    std::uint64_t low = 0;
    std::uint64_t high = recordCount_;
    std::uint64_t probe = guessed.value();
    constexpr std::uint64_t kFirstStep = 4;  // records
    std::uint64_t stepUp = kFirstStep;
    std::uint64_t stepDown = kFirstStep;
    while (low < high) {
        auto time = timestampNs(probe);
        if (!time) return time.error();
        const bool isOlder = time.value() < timeNs;
        (isOlder ? low : high) = isOlder ? probe + 1 : probe;
        // Once both sides have been met, the middle is as good as any step.
        const std::uint64_t middle = low + (high - low) / 2;
        probe = isOlder ? std::min(middle, low + stepUp) : std::max(middle, high - std::min(high, stepDown));
        std::uint64_t& step = isOlder ? stepUp : stepDown;
        step = std::min(4 * step, recordCount_);
    }
    return low;
}

/// The place of a time if all records came at an even pace.
Result<std::uint64_t> GroupReader::guess(std::int64_t timeNs) const {
    auto times = timeSpan();
    if (!times) return times.error();
    const double begin = static_cast<double>(times.value().firstNs);
    const double span = static_cast<double>(times.value().lastNs) - begin;
    const double passed = static_cast<double>(timeNs) - begin;
    if (!(span > 0) || passed <= 0) return 0;
    if (passed >= span) return recordCount_ - 1;
    const double place = passed / span * static_cast<double>(recordCount_ - 1);
    return std::min(static_cast<std::uint64_t>(place), recordCount_ - 1);
}

RecordStream GroupReader::read(RecordRange range, std::size_t batchBytes) const {
    return {file_, range, stride_, batchBytes};
}

RecordStream::RecordStream(const InputFile& file, RecordRange range, std::size_t stride,
                           std::size_t batchBytes)
    : file_(&file), left_(range), stride_(stride) {
    const auto records =
        std::min<std::uint64_t>(range.count(), std::max<std::size_t>(batchBytes / stride, 1));
    buffer_.resize(static_cast<std::size_t>(records) * stride);
}

Result<RecordBatch> RecordStream::next() {
    RecordBatch batch;
    batch.stride = stride_;
    batch.firstNumber = left_.first;
    count_ = 0;
    if (left_.count() == 0) return batch;
    batch.count = static_cast<std::size_t>(std::min<std::uint64_t>(left_.count(), buffer_.size() / stride_));
    const std::uint64_t offset = kHeaderSize + left_.first * stride_;
    if (auto read = file_->readAt(offset, buffer_.data(), batch.count * stride_); !read) return read.error();
    batch.bytes = buffer_.data();
    left_.first += batch.count;
    count_ = batch.count;
    return batch;
}

void RecordStream::countTimesFrom(std::int64_t originNs) {
    for (std::size_t i = 0; i < count_; ++i) {
        std::uint8_t* time = &buffer_[i * stride_];
        // Damaged timestamps may be any numbers.
        writeLittle(time, readLittle<std::uint64_t>(time) - static_cast<std::uint64_t>(originNs));
    }
}

}  // namespace lm::storage
