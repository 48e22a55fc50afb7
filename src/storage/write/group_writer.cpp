#include "storage/write/group_writer.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>

#include "core/bytes.h"
#include "storage/format/recording_format.h"

namespace lm::storage {

Result<GroupWriter> GroupWriter::create(std::size_t groupIndex, const GroupInfo& group,
                                        RecordingFaults& faults, RecordingCounters& counters) {
    const std::filesystem::path& directory = faults.directory();
    auto records =
        AppendFile::create(directory / recordFileName(groupIndex), recordHeader(group.recordSize),
                           std::uint64_t{group.recordSize} + kTimestampSize, ClaimedFile::Begin::onDisk);
    if (!records) return records.error();
    auto summary = SummaryWriter::create(groupIndex, group, faults);
    if (!summary) {
        const ClaimedFile& made = records.value().file();
        std::error_code ignored;
        if (made.isNew()) std::filesystem::remove(made.path(), ignored);
        return summary.error();
    }
    return GroupWriter(group.recordSize, std::move(records).value(), std::move(summary).value(), faults,
                       counters);
}

GroupWriter::GroupWriter(std::uint32_t recordSize, AppendFile records, SummaryWriter summary,
                         RecordingFaults& faults, RecordingCounters& counters)
    : recordSize_(recordSize),
      records_(std::move(records)),
      summary_(std::move(summary)),
      faults_(&faults),
      counters_(&counters) {}

void GroupWriter::append(std::int64_t timestampNs, const std::uint8_t* data) {
    ++place_.number;
    std::uint8_t* place = records_.reserve();
    if (place == nullptr && !stalled_) {
        flushRecords();
        place = records_.reserve();
    }
    if (place == nullptr) {
        counters_->recordsDropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    place_.lastTimestampNs = std::max(place_.lastTimestampNs, timestampNs);
    writeLittle(place, static_cast<std::uint64_t>(place_.lastTimestampNs));
    if (recordSize_ > 0) std::memcpy(place + kTimestampSize, data, recordSize_);
    records_.commit();
}

void GroupWriter::flushRecords() {
    const AppendFile::Progress progress = records_.writeOut();
    stalled_ = progress.systemError != 0;
    if (stalled_) faults_->reportWriteError();
    summary_.add(records_.buffered().data(), progress.units);
    records_.release(progress.units);
    counters_->recordsWritten.fetch_add(progress.units, std::memory_order_relaxed);
    counters_->bytesWritten.fetch_add(progress.units * (std::size_t{recordSize_} + kTimestampSize),
                                      std::memory_order_relaxed);
}

void GroupWriter::flush() {
    flushRecords();
    summary_.flush();
}

void GroupWriter::close() {
    flush();
    if (records_.file().flushToDisk() != 0) faults_->reportWriteError();
    counters_->recordsDropped.fetch_add(records_.bufferedUnits(), std::memory_order_relaxed);
    if (records_.file().close() != 0) faults_->reportWriteError();
    summary_.close();
}

std::vector<std::filesystem::path> GroupWriter::newFiles() const {
    std::vector<std::filesystem::path> files;
    if (records_.file().isNew()) files.push_back(records_.file().path());
    summary_.appendNewFiles(files);
    return files;
}

}  // namespace lm::storage
