#include "storage/write/derived_file.h"

#include <algorithm>
#include <utility>

namespace lm::storage {

Result<DerivedFile> DerivedFile::create(const std::filesystem::path& path, const FileHeader& header,
                                        std::uint64_t entrySize, RecordingFaults& faults) {
    auto file = AppendFile::create(path, header, entrySize, ClaimedFile::Begin::written);
    if (!file) return file.error();
    return DerivedFile(std::move(file).value(), faults);
}

DerivedFile::DerivedFile(AppendFile file, RecordingFaults& faults)
    : file_(std::move(file)), faults_(&faults) {}

void DerivedFile::append(std::span<const std::uint8_t> entry) {
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

void DerivedFile::flush() {
    const AppendFile::Progress progress = file_.writeOut();
    file_.release(progress.units);
    stalled_ = progress.systemError != 0;
    if (stalled_) faults_->reportWriteError();
}

void DerivedFile::close() {
    flush();
    if (file_.file().close() != 0) faults_->reportWriteError();
}

}  // namespace lm::storage
