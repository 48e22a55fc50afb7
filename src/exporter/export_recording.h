// Exports a recording to a file format of other tools.
//
// Threads: one at a time. Lifetime: borrows everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "core/result.h"
#include "exporter/export_plan.h"

namespace lm::exporter {

struct ExportSummary {
    std::vector<std::filesystem::path> files;
    std::size_t signals = 0;
    std::size_t groups = 0;
    std::uint64_t records = 0;
    std::vector<std::string> notes;  ///< what the user ought to know
};

/// The files that it would make. Errors: what is wrong with the recording or the selection.
Result<std::vector<std::filesystem::path>> exportedFiles(const storage::RecordingReader& recording,
                                                         const ExportOptions& options);

/// Errors: what is wrong with the recording, the selection or the output; Error::stopped "stopped". A failure
/// leaves no output behind.
Result<ExportSummary> exportRecording(const storage::RecordingReader& recording, const ExportOptions& options,
                                      const ProgressFunction& progress, const StopToken& stop = {});

}  // namespace lm::exporter
