#include "storage/entry_file.h"

#include <algorithm>
#include <utility>

namespace lm::storage {

Result<EntryFile> EntryFile::create(const std::filesystem::path& path, const FileHeader& header,
                                    std::uint64_t entrySize, RecordingFaults& faults) {
    auto file = UnitFile::create(path, header, entrySize);
    if (!file) return file.error();
    return EntryFile(std::move(file).value(), faults);
}

EntryFile::EntryFile(UnitFile file, RecordingFaults& faults) : file_(std::move(file)), faults_(&faults) {}

void EntryFile::append(std::span<const std::uint8_t> entry) {
    if (givenUp_) return;
    std::uint8_t* place = file_.reserve();
    if (place == nullptr && !stalled_) {
        flush();
        place = file_.reserve();
    }
    if (place == nullptr) {
        // One entry left out would move all later ones to wrong places.
        givenUp_ = true;
        return;
    }
    std::copy(entry.begin(), entry.end(), place);
    file_.commit();
}

void EntryFile::flush() {
    const UnitFile::Progress progress = file_.writeOut();
    file_.release(progress.units);
    stalled_ = progress.systemError != 0;
    if (stalled_) faults_->reportWriteError();
}

void EntryFile::close() {
    flush();
    if (!file_.close()) faults_->reportWriteError();
}

}  // namespace lm::storage
