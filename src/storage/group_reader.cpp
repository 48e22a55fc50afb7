#include "storage/group_reader.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "storage/file_lock.h"

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
    if (!std::equal(header.begin(), header.begin() + kMagicSize, expected.begin())) {
        return Error{ErrorCode::invalidArgument, path + ": not the header of a record file"};
    }
    if (const auto version = readLittle<std::uint32_t>(&header[8]); version != kFormatVersion) {
        return Error{ErrorCode::unsupported, path + ": format version " + std::to_string(version) +
                                                 " instead of " + std::to_string(kFormatVersion)};
    }
    const auto recordSize = readLittle<std::uint32_t>(&header[12]);
    const auto stride = readLittle<std::uint32_t>(&header[16]);
    if (recordSize != info_->recordSize || stride != stride_) {
        return Error{ErrorCode::invalidArgument, path + ": records of " + std::to_string(recordSize) +
                                                     " bytes every " + std::to_string(stride) +
                                                     ", meta.json says " + std::to_string(info_->recordSize) +
                                                     " every " + std::to_string(stride_)};
    }
    return {};
}

GroupReader::GroupReader(InputFile file, std::size_t number, const GroupInfo& group)
    : file_(std::move(file)),
      info_(&group),
      number_(number),
      stride_(std::size_t{group.recordSize} + kTimestampSize),
      recordCount_(file_.size() < kHeaderSize ? 0 : (file_.size() - kHeaderSize) / stride_),
      beingWritten_(isLockedByAnother(file_.descriptor())) {}

std::uint64_t GroupReader::tornBytes() const {
    return file_.size() < kHeaderSize ? file_.size() : file_.size() - offsetOf(recordCount_);
}

Result<std::int64_t> GroupReader::timestampNs(std::uint64_t n) const {
    std::array<std::uint8_t, kTimestampSize> bytes{};
    if (auto read = file_.readAt(offsetOf(n), bytes.data(), bytes.size()); !read) return read.error();
    return static_cast<std::int64_t>(readLittle<std::uint64_t>(bytes.data()));
}

Result<RecordRange> GroupReader::find(const TimeRange& times) const {
    auto first = firstNotBefore(times.fromNs);
    if (!first) return first.error();
    auto end = firstNotBefore(times.endNs);
    if (!end) return end.error();
    return RecordRange{first.value(), std::max(first.value(), end.value())};
}

// Straight in the records: the index would save no read worth having, and can be damaged or not written yet.
Result<std::uint64_t> GroupReader::firstNotBefore(std::int64_t timeNs) const {
    std::uint64_t low = 0;
    std::uint64_t high = recordCount_;
    if (timeNs == std::numeric_limits<std::int64_t>::min()) high = 0;
    if (timeNs == std::numeric_limits<std::int64_t>::max()) low = recordCount_;
    while (low < high) {
        const std::uint64_t middle = low + (high - low) / 2;
        auto time = timestampNs(middle);
        if (!time) return time.error();
        if (time.value() < timeNs) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
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
    if (left_.count() == 0) return batch;
    batch.count = static_cast<std::size_t>(std::min<std::uint64_t>(left_.count(), buffer_.size() / stride_));
    const std::uint64_t offset = kHeaderSize + left_.first * stride_;
    if (auto read = file_->readAt(offset, buffer_.data(), batch.count * stride_); !read) return read.error();
    batch.bytes = buffer_.data();
    left_.first += batch.count;
    return batch;
}

}  // namespace lm::storage
