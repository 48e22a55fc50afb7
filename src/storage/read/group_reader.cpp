#include "storage/read/group_reader.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "core/file_lock.h"
#include "storage/read/gap_search.h"

namespace lm::storage {
namespace {

/// The piece with record `n`, which there is.
const GroupPiece& pieceOf(const std::vector<GroupPiece>& pieces, std::uint64_t n) {
    if (n < pieces.front().end()) return pieces.front();
    return *std::upper_bound(
        pieces.begin(), pieces.end(), n,
        [](std::uint64_t record, const GroupPiece& piece) { return record < piece.end(); });
}

}  // namespace

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
    if (file().size() < kHeaderSize) return {};
    FileHeader header{};
    if (auto read = file().readAt(0, header.data(), header.size()); !read) return read;
    const FileHeader expected = recordHeader(info_->recordSize);
    const std::string path = file().path().string();
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
    : info_(&group), number_(number), stride_(std::size_t{group.recordSize} + kTimestampSize) {
    const bool beingWritten = isLockedByAnother(file.descriptor());
    pieces_.push_back({std::move(file), 0, 0, 0, beingWritten});
    countRecords();
}

Result<void> GroupReader::append(GroupReader next, std::int64_t shiftNs) {
    auto here = timeSpan();
    if (!here) return here.error();
    auto there = next.timeSpan();
    if (!there) return there.error();
    if (!here.value().isEmpty() && !there.value().isEmpty() &&
        timeBetween(here.value().lastNs, there.value().firstNs) + shiftNs < 0) {
        return Error{ErrorCode::invalidArgument, next.pieces_.front().directory().string() +
                                                     " begins before " + pieces_.back().directory().string() +
                                                     " ends: they do not follow each other"};
    }
    for (GroupPiece& piece : next.pieces_) {
        piece.shiftNs += shiftNs;
        pieces_.push_back(std::move(piece));
    }
    countRecords();
    return {};
}

Result<void> GroupReader::refresh() {
    auto looked = pieces_.back().file.refresh();
    countRecords();
    return looked;
}

void GroupReader::countRecords() {
    recordCount_ = 0;
    for (GroupPiece& piece : pieces_) {
        const std::uint64_t size = piece.file.size();
        piece.first = recordCount_;
        piece.count = size < kHeaderSize ? 0 : (size - kHeaderSize) / stride_;
        recordCount_ += piece.count;
    }
}

std::uint64_t GroupReader::tornBytes() const {
    std::uint64_t bytes = 0;
    for (const GroupPiece& piece : pieces_) {
        const std::uint64_t size = piece.file.size();
        bytes += size < kHeaderSize ? size : size - offsetOf(piece.count);
    }
    return bytes;
}

Result<std::int64_t> GroupReader::timestampNs(std::uint64_t n) const {
    const GroupPiece& piece = pieceOf(pieces_, n);
    std::array<std::uint8_t, kTimestampSize> bytes{};
    const std::uint64_t offset = kHeaderSize + (n - piece.first) * stride_;
    if (auto read = piece.file.readAt(offset, bytes.data(), bytes.size()); !read) return read.error();
    // Damaged timestamps may be any numbers.
    return static_cast<std::int64_t>(readLittle<std::uint64_t>(bytes.data()) +
                                     static_cast<std::uint64_t>(piece.shiftNs));
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
    return {pieces_, range, stride_, batchBytes};
}

RecordStream::RecordStream(const std::vector<GroupPiece>& pieces, RecordRange range, std::size_t stride,
                           std::size_t batchBytes)
    : pieces_(&pieces), left_(range), stride_(stride) {
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
    const GroupPiece& piece = pieceOf(*pieces_, left_.first);
    const std::uint64_t most = std::min(left_.count(), piece.end() - left_.first);
    batch.count = static_cast<std::size_t>(std::min<std::uint64_t>(most, buffer_.size() / stride_));
    const std::uint64_t offset = kHeaderSize + (left_.first - piece.first) * stride_;
    if (auto read = piece.file.readAt(offset, buffer_.data(), batch.count * stride_); !read)
        return read.error();
    batch.bytes = buffer_.data();
    left_.first += batch.count;
    count_ = batch.count;
    if (piece.shiftNs != 0) countTimesFrom(-piece.shiftNs);
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
