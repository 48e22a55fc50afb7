#include "storage/write/group_writer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <system_error>
#include <utility>

#include "core/bytes.h"
#include "storage/format/recording_format.h"

namespace lm::storage {

Result<GroupWriter> GroupWriter::create(std::size_t groupIndex, const GroupInfo& group,
                                        RecordingFaults& faults, RecordingCounters& counters) {
    const std::filesystem::path& directory = faults.directory();
    auto records = AppendFile::create(directory / recordFileName(groupIndex), recordHeader(group.recordSize),
                                      std::uint64_t{group.recordSize} + kTimestampSize);
    if (!records) return records.error();
    Result<void> onDisk = records.value().flushToDisk();
    Result<DerivedFile> index = onDisk.ok() ? DerivedFile::create(directory / indexFileName(groupIndex),
                                                                  indexHeader(), kIndexEntrySize, faults)
                                            : Result<DerivedFile>(onDisk.error());
    if (!index) {
        std::error_code ignored;
        if (records.value().isNew()) std::filesystem::remove(records.value().path(), ignored);
        return index.error();
    }
    return GroupWriter(groupIndex, group, std::move(records).value(), std::move(index).value(), faults,
                       counters);
}

GroupWriter::GroupWriter(std::size_t groupIndex, const GroupInfo& group, AppendFile records,
                         DerivedFile index, RecordingFaults& faults, RecordingCounters& counters)
    : recordSize_(group.recordSize),
      records_(std::move(records)),
      index_(std::move(index)),
      pyramid_(groupIndex, group, faults),
      faults_(&faults),
      counters_(&counters) {}

void GroupWriter::append(std::int64_t timestampNs, const std::uint8_t* data) {
    std::uint8_t* place = records_.reserve();
    if (place == nullptr && !stalled_) {
        flushRecords();
        place = records_.reserve();
    }
    if (place == nullptr) {
        counters_->recordsDropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    lastTimestampNs_ = std::max(lastTimestampNs_, timestampNs);
    writeLittle(place, static_cast<std::uint64_t>(lastTimestampNs_));
    if (recordSize_ > 0) std::memcpy(place + kTimestampSize, data, recordSize_);
    records_.commit();
}

void GroupWriter::flushRecords() {
    const AppendFile::Progress progress = records_.writeOut();
    stalled_ = progress.systemError != 0;
    if (stalled_) faults_->reportWriteError();
    summarise(records_.buffered().data(), progress.units);
    records_.release(progress.units);
}

void GroupWriter::summarise(const std::uint8_t* records, std::size_t count) {
    const std::size_t stride = std::size_t{recordSize_} + kTimestampSize;
    for (std::size_t i = 0; i < count; ++i) {
        extendIndex(static_cast<std::int64_t>(readLittle<std::uint64_t>(records + i * stride)));
    }
    pyramid_.add(records, count);
    counters_->recordsWritten.fetch_add(count, std::memory_order_relaxed);
    counters_->bytesWritten.fetch_add(count * stride, std::memory_order_relaxed);
}

void GroupWriter::extendIndex(std::int64_t timestampNs) {
    const std::uint64_t placeInBlock = recordCount_++ % kBlockLength;
    if (placeInBlock == 0) blockStartNs_ = timestampNs;
    if (placeInBlock != kBlockLength - 1) return;
    std::array<std::uint8_t, kIndexEntrySize> entry{};
    writeLittle(&entry[0], static_cast<std::uint64_t>(blockStartNs_));
    writeLittle(&entry[8], static_cast<std::uint64_t>(timestampNs));
    index_.append(entry);
}

void GroupWriter::flush() {
    flushRecords();
    index_.flush();
    pyramid_.flush();
}

void GroupWriter::close() {
    flush();
    if (!records_.flushToDisk()) faults_->reportWriteError();
    counters_->recordsDropped.fetch_add(records_.bufferedUnits(), std::memory_order_relaxed);
    if (!records_.close()) faults_->reportWriteError();
    index_.close();
    pyramid_.close();
}

std::vector<std::filesystem::path> GroupWriter::newFiles() const {
    std::vector<std::filesystem::path> files;
    if (records_.isNew()) files.push_back(records_.path());
    if (index_.file().isNew()) files.push_back(index_.file().path());
    pyramid_.appendNewFiles(files);
    return files;
}

}  // namespace lm::storage
