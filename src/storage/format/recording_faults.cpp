#include "storage/format/recording_faults.h"

#include <string>
#include <system_error>
#include <utility>

#include "core/log.h"

namespace lm::storage {

RecordingFaults::RecordingFaults(std::filesystem::path directory) : directory_(std::move(directory)) {}

void RecordingFaults::reportWriteError() {
    if (std::exchange(writeFailed_, true)) return;
    log::error("recording: write error in {}", directory_.string());
}

void RecordingFaults::reportMissingLevel(const std::filesystem::path& file, const Error& error) {
    if (std::exchange(levelMissing_, true)) return;
    const std::string reason =
        error.sysErrno == 0 ? error.text() : std::generic_category().message(error.sysErrno);
    log::error("recording: cannot create {}: {} (further levels may be missing; the data is complete)",
               file.string(), reason);
}

}  // namespace lm::storage
