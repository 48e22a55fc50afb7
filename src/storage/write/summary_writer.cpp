#include "storage/write/summary_writer.h"

#include <utility>

#include "storage/format/summary_file.h"

namespace lm::storage {

Result<SummaryWriter> SummaryWriter::create(std::size_t groupIndex, const GroupInfo& group,
                                            RecordingFaults& faults) {
    SummaryWriter writer(groupIndex, group, faults);
    auto index = writer.makeFile(SummaryFile::kIndex);
    if (!index) return index.error();
    writer.files_.emplace_back(std::move(index).value());
    return writer;
}

SummaryWriter::SummaryWriter(std::size_t groupIndex, const GroupInfo& group, RecordingFaults& faults)
    : groupIndex_(groupIndex), group_(&group), faults_(&faults), builder_(group) {}

Result<DerivedFile> SummaryWriter::makeFile(std::size_t number) const {
    return DerivedFile::create(SummaryFile::path(faults_->directory(), groupIndex_, number),
                               SummaryFile::header(number, *group_), SummaryFile::entrySize(number, *group_),
                               *faults_);
}

void SummaryWriter::add(const std::uint8_t* records, std::size_t count) {
    builder_.add(records, count, [this](std::size_t number, std::span<const std::uint8_t> entry) {
        append(number, entry);
        return true;
    });
}

void SummaryWriter::append(std::size_t number, std::span<const std::uint8_t> entry) {
    // Entries of a level come after the first one of the level below.
    if (number == files_.size()) {
        auto file = makeFile(number);
        if (!file) {
            faults_->reportMissingLevel(SummaryFile::path(faults_->directory(), groupIndex_, number),
                                        file.error());
        }
        files_.push_back(file ? std::optional(std::move(file).value()) : std::nullopt);
    }
    if (files_[number]) files_[number]->append(entry);
}

void SummaryWriter::flush() {
    for (auto& file : files_) {
        if (file) file->flush();
    }
}

void SummaryWriter::close() {
    for (auto& file : files_) {
        if (file) file->close();
    }
}

void SummaryWriter::appendNewFiles(std::vector<std::filesystem::path>& files) const {
    for (const auto& file : files_) {
        if (file && file->file().isNew()) files.push_back(file->file().path());
    }
}

}  // namespace lm::storage
