#include "exporter/export_recording.h"

#include <algorithm>
#include <utility>

#include "exporter/csv_export.h"
#include "exporter/mf4_export.h"

namespace lm::exporter {
namespace {

void noteUnfinished(const std::vector<ExportGroup>& groups, std::vector<std::string>& notes) {
    if (std::any_of(groups.begin(), groups.end(),
                    [](const ExportGroup& group) { return group.reader.isBeingWritten(); })) {
        notes.emplace_back("the recording is still being written; exported is what was there at the start");
    }
}

}  // namespace

Result<ExportSummary> exportRecording(const storage::RecordingReader& recording, const ExportOptions& options,
                                      const ProgressFunction& progress) {
    auto groups = planExport(recording, options);
    if (!groups) return groups.error();
    Progress meter(progress, totalBytes(groups.value()));
    ExportSummary summary;
    summary.groups = groups.value().size();
    for (const ExportGroup& group : groups.value()) {
        summary.signals += group.signals.size();
        summary.records += group.recordCount();
    }
    if (options.format == Format::mf4) {
        auto notes = exportMf4(recording.info(), groups.value(), options, meter);
        if (!notes) return notes.error();
        summary.files = {options.output};
        summary.notes = std::move(notes).value();
    } else {
        auto files = exportCsv(recording.info(), groups.value(), options, meter);
        if (!files) return files.error();
        summary.files = std::move(files).value();
    }
    noteUnfinished(groups.value(), summary.notes);
    return summary;
}

}  // namespace lm::exporter
